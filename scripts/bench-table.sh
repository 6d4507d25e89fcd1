#!/usr/bin/env bash
# bench-table.sh <bench-build-dir> [--table-only]
# Runs every benchmark of a Release build against one tdoc-emulator in its own
# process, keeps each program's JSON in <build>/bench-results/, and prints the table:
# each row a ratio of two figures taken in the same run, with its goal beside it.
# --table-only prints the table again from the JSON of the last run.
set -u
build=$(cd "$1" && pwd)
bin=$build/bin
out=$build/bench-results
mkdir -p "$out"

run_all() {
urlfile=$(mktemp)
"$bin/tdoc-emulator" --port 0 --print-url >"$urlfile" 2>"$out/emulator.log" &
emu_pid=$!
trap 'kill $emu_pid 2>/dev/null; wait $emu_pid 2>/dev/null; rm -f "$urlfile"' EXIT
for _ in $(seq 100); do [ -s "$urlfile" ] && break; sleep 0.1; done
TDOC_EMULATOR_URL=$(head -n1 "$urlfile"); export TDOC_EMULATOR_URL
[ -n "$TDOC_EMULATOR_URL" ] || { echo "bench: the emulator did not start" >&2; exit 1; }

for prog in "$bin"/bench_*; do
  [ -x "$prog" ] || continue
  name=$(basename "$prog")
  echo "== $name" >&2
  "$prog" --benchmark_out="$out/$name.json" --benchmark_out_format=json >&2 ||
    echo "bench: $name failed" >&2
done
}
[ "${2:-}" = --table-only ] || run_all

python3 - "$out" <<'PY'
import glob, json, os, statistics, sys

rows = {}
runs = {}  # every run of a name, for benchmarks registered more than once
for path in glob.glob(os.path.join(sys.argv[1], "bench_*.json")):
    with open(path) as f:
        for b in json.load(f).get("benchmarks", []):
            if b.get("error_occurred"):
                continue
            rows[b["name"]] = b
            runs.setdefault(b["name"], []).append(b)

def median_of(name, field):
    values = [float(b[field]) for b in runs.get(name, []) if field in b]
    return statistics.median(values) if values else None

def get(name, field):
    b = rows.get(name)
    return None if b is None or field not in b else float(b[field])

def ratio(a, b):
    return None if a is None or b is None or b == 0 else a / b

def fmt(x, spec="{:.2f}"):
    return "not measured" if x is None else spec.format(x)

table = []
def row(key, measure, value, goal, ok):
    verdict = "-" if value is None or ok is None else ("met" if ok else "short")
    table.append((key, measure, value, goal, verdict))

# P1: medians of wall time.
p1n = "UploadBesideBarePost/repeats:5/real_time_median"
p1 = get(p1n, "ratio")
v1 = None if p1 is None else "{:.2f} ({:.0f} us / {:.0f} us)".format(
    p1, get(p1n, "ours_us"), get(p1n, "bare_us"))
row("P1", "UploadDocInfo latency / bare libcurl POST (median wall)", fmt(v1, "{}"), "<= 1.10",
    None if p1 is None else p1 <= 1.10)
# P2: calls per second, eight threads each side.
o2 = median_of("UploadDocInfo/real_time/threads:8", "items_per_second")
b2 = median_of("BareCurlPost/real_time/threads:8", "items_per_second")
p2 = ratio(o2, b2)
v2 = None if p2 is None else "{:.2f} ({:.0f} / {:.0f} calls/s)".format(p2, o2, b2)
row("P2", "calls/s with 8 threads / 8 threads of bare libcurl", fmt(v2, "{}"), ">= 0.90",
    None if p2 is None else p2 >= 0.90)
# P3: time and requests of InitApi from a fresh cache entry. The call makes no request
# and waits on nothing, so its CPU time is its cost; the wall time beside it also holds
# whatever else the machine ran meanwhile, and the goal is judged on the CPU time.
t3 = get("InitApiFromCache/repeats:5_median", "real_time")
c3 = get("InitApiFromCache/repeats:5_median", "cpu_time")
r3 = get("InitApiFromCache/repeats:5_median", "requests_seen")
v3 = None if t3 is None or c3 is None or r3 is None else \
    "{:.0f} us CPU ({:.0f} us wall), {:.0f} requests".format(c3, t3, r3)
row("P3", "InitApi from a fresh cache entry", fmt(v3, "{}"), "<= 100 us, 0",
    None if v3 is None else (c3 <= 100 and r3 == 0))
# P4: CPU of an idle polling worker.
c4 = get("IdlePollingWorker/iterations:1/real_time", "cpu_percent")
w4 = get("IdlePollingWorker/iterations:1/real_time", "window_s")
v4 = None if c4 is None else "{:.3f} % over {:.0f} s".format(c4, w4)
row("P4", "CPU of an idle polling worker (% of a core)", fmt(v4, "{}"), "<= 0.1 %",
    None if c4 is None else c4 <= 0.1)
# P5: the XML reader against pugixml and tinyxml2, bytes per second.
ours = get("BM_ParseXmlBuffer", "bytes_per_second")
p5a = ratio(ours, get("BM_PugixmlLoadBuffer", "bytes_per_second"))
p5b = ratio(ours, get("BM_Tinyxml2Parse", "bytes_per_second"))
row("P5a", "XML reader / pugixml (1 MiB preference document)", fmt(p5a), ">= 0.50",
    None if p5a is None else p5a >= 0.5)
row("P5b", "XML reader / tinyxml2", fmt(p5b), ">= 1.00", None if p5b is None else p5b >= 1.0)
# P6: codecs against OpenSSL's libcrypto.
for key, label, a, b in (("P6a", "base64 encode", "Base64EncodeOurs", "Base64EncodeOpenssl"),
                         ("P6b", "base64 decode", "Base64DecodeOurs", "Base64DecodeOpenssl"),
                         ("P6c", "MD5", "Md5Ours", "Md5Openssl")):
    r = ratio(get(a, "bytes_per_second"), get(b, "bytes_per_second"))
    row(key, label + " throughput / OpenSSL", fmt(r), ">= 0.50", None if r is None else r >= 0.5)
# P7: heap.
h = "HeapOverCalls/iterations:1/real_time"
g7, c7, n7 = get(h, "heap_growth_B"), get(h, "heap_per_client_B"), get(h, "calls")
v7 = None if g7 is None else "{:.0f} B over {:.0f} calls; {:.1f} KiB per client".format(
    g7, n7, c7 / 1024)
row("P7", "heap growth over the calls; heap held per client", fmt(v7, "{}"), "0 B; <= 64 KiB",
    None if g7 is None else (g7 <= 0 and c7 <= 64 * 1024))

w = [max(len(str(r[i])) for r in table + [("Row", "Measure", "Value", "Goal", "")])
     for i in range(5)]
def line(cells):
    print("| " + " | ".join(str(c).ljust(w[i]) for i, c in enumerate(cells)) + " |")
print()
line(("Row", "Measure", "Value", "Goal", ""))
print("|" + "|".join("-" * (x + 2) for x in w) + "|")
for r in table:
    line(r)
PY
