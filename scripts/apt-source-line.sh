#!/usr/bin/env bash
# Prints the "deb-src" line for the release this machine installs its packages from,
# taken from its own apt sources, so that a source package comes from the same
# archive as the binary packages.
#   apt-source-line.sh [sources-file...]
# Without arguments it reads what apt reads: /etc/apt/sources.list and the *.list
# and *.sources files of /etc/apt/sources.list.d. Both forms are understood: the
# one-line form ("deb [options] uri suite component...") and the deb822 form
# (stanzas of Types, URIs, Suites, Components, Signed-By, Enabled).
#
# The entry taken is the first binary one ("deb") with the component main whose suite
# is a release itself (no "-updates", "-security" and the like); failing that, the
# first binary one with main. Its keyring, when it names one, goes with it. The
# script fails when there is no such entry.
set -euo pipefail

if [ $# -eq 0 ]; then
  set --
  [ -f /etc/apt/sources.list ] && set -- "$@" /etc/apt/sources.list
  for f in /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] && set -- "$@" "$f"
  done
fi
[ $# -gt 0 ] || { echo "apt-source-line: no apt sources found" >&2; exit 1; }

# Each entry becomes one record "uri<TAB>suite<TAB>components<TAB>signed-by".
entries() {
  local f
  for f in "$@"; do
    case "$f" in
      *.sources)
        awk '
          function flush() {
            if (types ~ /(^| )deb( |$)/ && enabled != "no" && uris != "" && suites != "") {
              nu = split(uris, u, " "); ns = split(suites, s, " ")
              for (i = 1; i <= nu; i++) for (j = 1; j <= ns; j++)
                printf "%s\t%s\t%s\t%s\n", u[i], s[j], comps, signed
            }
            types = uris = suites = comps = signed = ""; enabled = ""; field = ""
          }
          /^[ \t]*#/ { next }
          /^[ \t]*$/ { flush(); next }
          /^[ \t]/ { field = ""; next }   # continuation lines (an embedded key) are not kept
          {
            name = tolower(substr($0, 1, index($0, ":") - 1))
            value = substr($0, index($0, ":") + 1)
            gsub(/^[ \t]+|[ \t]+$/, "", value); gsub(/[ \t]+/, " ", value)
            if (name == "types") types = value
            else if (name == "uris") uris = value
            else if (name == "suites") suites = value
            else if (name == "components") comps = value
            else if (name == "enabled") enabled = tolower(value)
            else if (name == "signed-by" && value ~ /^\//) signed = value
          }
          END { flush() }' "$f"
        ;;
      *)
        awk '
          { sub(/#.*/, "") }
          $1 != "deb" { next }
          {
            signed = ""; i = 2
            if ($2 ~ /^\[/) {
              opts = ""
              for (; i <= NF; i++) { opts = opts " " $i; if ($i ~ /\]$/) { i++; break } }
              if (match(opts, /signed-by=[^] ]+/)) signed = substr(opts, RSTART + 10, RLENGTH - 10)
            }
            if (i + 1 > NF) next
            uri = $i; suite = $(i + 1); comps = ""
            for (k = i + 2; k <= NF; k++) comps = comps (comps == "" ? "" : " ") $k
            printf "%s\t%s\t%s\t%s\n", uri, suite, comps, signed
          }' "$f"
        ;;
    esac
  done
}

entries "$@" | awk -F '\t' '
  $3 !~ /(^| )main( |$)/ { next }
  !any { any = $0 }
  !release && $2 !~ /-/ && $2 !~ /\/$/ { release = $0 }
  END {
    line = release != "" ? release : any
    if (line == "") { print "apt-source-line: no binary source with the component main" > "/dev/stderr"; exit 1 }
    split(line, e, "\t")
    printf "deb-src %s%s %s main\n", (e[4] != "" ? "[signed-by=" e[4] "] " : ""), e[1], e[2]
  }'
