#!/usr/bin/env bash
# Runs every test program of one build tree once and appends "<passed> <failed>"
# to the results file.
#   run-tests.sh native <build-dir> <results-file>
#   run-tests.sh wine   <build-dir> <results-file> <native-emulator-binary>
# Under wine each program runs in one wine launch, in a WINEPREFIX inside the build
# tree; the emulator runs natively and the program reaches it over loopback through
# TDOC_EMULATOR_URL.
set -uo pipefail
mode=$1 build=$(cd "$2" && pwd) results=$3 emulator=${4:-}
list=$build/test-binaries.txt
logs=$build/test-logs
mkdir -p "$logs"
passed=0 failed=0
emu_pid=""

cleanup() {
  [ -n "$emu_pid" ] && kill "$emu_pid" 2>/dev/null && wait "$emu_pid" 2>/dev/null
  [ "$mode" = wine ] && WINEPREFIX=$build/wineprefix /usr/lib/wine/wineserver -k 2>/dev/null
  true
}
trap cleanup EXIT

if [ "$mode" = wine ]; then
  export WINEPREFIX=$build/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  if [ ! -d "$WINEPREFIX" ]; then
    /usr/lib/wine/wine64 wineboot -i >/dev/null 2>&1
    /usr/lib/wine/wineserver -w
  fi
  if [ -x "$emulator" ]; then
    urlfile=$(mktemp)
    "$emulator" --port 0 --print-url >"$urlfile" 2>"$logs/emulator.log" &
    emu_pid=$!
    for _ in $(seq 100); do [ -s "$urlfile" ] && break; sleep 0.1; done
    TDOC_EMULATOR_URL=$(head -n1 "$urlfile"); export TDOC_EMULATOR_URL
    rm -f "$urlfile"
  fi
fi

while read -r bin; do
  [ -n "$bin" ] || continue
  name=$(basename "$bin")
  log=$logs/${name%.exe}.log
  if [ "$mode" = wine ]; then
    (cd "$(dirname "$bin")" && timeout 900 /usr/lib/wine/wine64 "$bin") >"$log" 2>&1
  else
    (cd "$(dirname "$bin")" && timeout 900 "$bin") >"$log" 2>&1
  fi
  rc=$?
  p=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) test.*/\1/p' "$log" | tail -n1)
  f=$(sed -n 's/^\[  FAILED  \] \([0-9]*\) test.*/\1/p' "$log" | tail -n1)
  p=${p:-0} f=${f:-0}
  if [ $rc -ne 0 ] && [ "$f" = 0 ]; then
    f=1   # crashed, timed out or failed outside a test case
    echo "[$mode] $name: exit code $rc"; tail -n 20 "$log"
  fi
  grep -E '^\[  FAILED  \] [A-Za-z_]' "$log" | sed "s/^/[$mode] /" | sort -u
  echo "[$mode] $name: $p passed, $f failed"
  passed=$((passed + p)) failed=$((failed + f))
done <"$list"

echo "$passed $failed" >>"$results"
