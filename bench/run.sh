#!/usr/bin/env bash
# Every per-request figure of qlhsmd beside its anchor, in one run on this machine, at 2 threads,
# best of N rounds (anchor and figure alternate), by wall-clock:
#
#   row                        qlutil / libqlapi                  anchor
#   sign-hash rsa2048          -p sign-hash -k rsa2048 -t 2       openssl speed -multi 2 rsa2048
#   sign-hash p256             -p sign-hash -k ecc_secp256r1      openssl speed -multi 2 ecdsap256
#   encrypt aes256 8KiB        -p encrypt -k aes256 -m 8192       openssl speed -multi 2 -evp aes-256-cbc
#   nop -sc 0                  -p nop -sc 0 (handshake, login,    two openssl s_time -new at once
#                              logout on a new connection)        against the same qlhsmd
#   nop cached                 -p nop (cached sessions)           (none: an absolute aim)
#   random16 / ping-pong       QGetRandom(16) over TLS            a bare TCP ping-pong of 16 bytes
#                              (qlapi_bench)                      (qlapi_bench); lower is better
#
# The qlutil rows run against a qlhsmd of their own on a free loopback port, whose certificate
# the s_time anchor meets too; qlapi_bench starts its own. Beside each row: the 1-minute load
# average before it and the machine's CPU count. The table goes to standard output and, as JSON,
# to BENCH_JSON (default bench-results.json).
#
#   bench/run.sh [build-dir]        default: build/release
#   BENCH_ROUNDS=3 BENCH_SECONDS=3 BENCH_JSON=out.json bench/run.sh
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/release}
qlutil=$build/bin/qlutil
qlhsmd=$build/bin/qlhsmd
qlapi_bench=$build/bin/qlapi_bench
rounds=${BENCH_ROUNDS:-3}
secs=${BENCH_SECONDS:-3}
json=${BENCH_JSON:-bench-results.json}
threads=2
[[ -x $qlapi_bench ]] || { echo "run.sh: no benchmark binary at $qlapi_bench (build the release preset)" >&2; exit 1; }
source "$root/bench/perf_lib/local_hsm.sh"
source "$root/bench/perf_lib/anchors.sh"

load() { cut -d' ' -f1 /proc/loadavg; }
rows="$work/rows.tsv"
: >"$rows"

# label unit aim higher|lower anchor-command... -- qlutil-args...
row() {
  local label=$1 unit=$2 aim=$3
  shift 3
  local anchor_cmd=() ql_args=() before anchor_best=0 ql_best=0 r
  while [[ $1 != -- ]]; do anchor_cmd+=("$1"); shift; done
  shift
  ql_args=("$@")
  before=$(load)
  for r in $(seq 1 "$rounds"); do
    if [[ ${#anchor_cmd[@]} -gt 0 ]]; then anchor_best=$(best "$("${anchor_cmd[@]}")" "$anchor_best"); fi
    ql_best=$(best "$(ql "${ql_args[@]}" -t "$threads")" "$ql_best")
  done
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$label" "$unit" "$ql_best" "$anchor_best" "$aim" "$before" >>"$rows"
}

row "sign-hash rsa2048" "op/s" ">=0.92" speed_sign rsa2048 "$threads" -- \
  -p sign-hash -i 1500 -h sha256 -k rsa2048
row "sign-hash p256" "op/s" ">=0.65" speed_sign ecdsap256 "$threads" -- \
  -p sign-hash -i 4000 -h sha256 -k ecc_secp256r1
row "encrypt aes256 8KiB" "B/s" ">=0.35" speed_aes "$threads" -- \
  -p encrypt -i 4000 -k aes256 -m 8192
row "nop -sc 0" "op/s" ">=1.0" s_time_new "$threads" -- -p nop -i 300 -sc 0
row "nop cached" "op/s" ">=20000" -- -p nop -i 20000

# The round trip of a 16-byte QGetRandom over TLS against a bare TCP ping-pong, from qlapi_bench:
# the ratio of their times (lower is better).
before=$(load)
best_rnd=0
best_ping=0
for r in $(seq 1 "$rounds"); do
  "$qlapi_bench" --benchmark_filter='BM_(Random16Tls/.*threads:1|TcpPingPong)' \
    --benchmark_min_time=1 --benchmark_format=json >"$work/qlapi.json" 2>/dev/null
  read -r rnd ping < <(/usr/bin/python3 -c '
import json, sys
r = {b["name"].split("/")[0]: b.get("items_per_second", 0.0) for b in json.load(open(sys.argv[1]))["benchmarks"]}
print("%.0f %.0f" % (r.get("BM_Random16Tls", 0), r.get("BM_TcpPingPong", 0)))' "$work/qlapi.json")
  best_rnd=$(best "$rnd" "$best_rnd")
  best_ping=$(best "$ping" "$best_ping")
done
printf '%s\t%s\t%s\t%s\t%s\t%s\n' "random16 / ping-pong" "op/s" "$best_rnd" "$best_ping" "<=1.15" \
  "$before" >>"$rows"

/usr/bin/python3 - "$rows" "$json" "$(nproc)" "$rounds" <<'PY'
import json, sys
rows_file, json_file, cpus, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
rows = []
print("qlhsmd per request, 2 threads, best of %d, %d CPUs" % (rounds, cpus))
print("%-22s %14s %14s %8s %9s %6s %5s" % ("row", "qlutil", "anchor", "figure", "aim", "met", "load"))
for line in open(rows_file):
    label, unit, q, a, aim, load = line.rstrip("\n").split("\t")
    q, a = float(q), float(a)
    if label.startswith("random16"):
        figure = a / q if q else float("inf")  # time of a round trip over time of a ping-pong
    elif a:
        figure = q / a
    else:
        figure = q
    bound = float(aim[2:])
    met = figure >= bound if aim.startswith(">=") else figure <= bound
    rows.append({"row": label, "unit": unit, "qlutil": q, "anchor": a or None, "figure": figure,
                 "aim": aim, "met": met, "load_before": float(load), "cpus": cpus})
    print("%-22s %14.0f %14s %8.2f %9s %6s %5s" % (label, q, "%.0f" % a if a else "-", figure,
                                                 aim, "yes" if met else "no", load))
json.dump({"threads": 2, "rounds": rounds, "cpus": cpus, "rows": rows}, open(json_file, "w"),
          indent=2)
PY
echo "written: $json"
