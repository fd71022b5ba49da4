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
# The "bound" column of the crypto rows is what a server doing nothing but the anchor's work and a
# bare TCP round trip of the same size per operation would reach here, as a figure of the same
# kind: with P bare round trips a second at 2 threads (qlapi_bench BM_TcpPingPong, two pairs at
# once, which keep both CPUs busy), n round trips per operation and A anchor operations a
# second, (P/n) / (A + P/n). `-p encrypt -m 8192` makes two calls per message (pieces of 8064 and
# 128 bytes), so n is 2 there, both counted at the 8 KiB round trip's rate. A figure above the
# bound would need fewer round trips than calls, which the API's one answer per call rules out.
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

# label unit aim trips anchor-command... -- qlutil-args...
# trips: bare round trips a second over the round trips one operation makes (0: no bound)
row() {
  local label=$1 unit=$2 aim=$3 trips=$4
  shift 4
  local anchor_cmd=() ql_args=() before anchor_best=0 ql_best=0 r
  while [[ $1 != -- ]]; do anchor_cmd+=("$1"); shift; done
  shift
  ql_args=("$@")
  before=$(load)
  for r in $(seq 1 "$rounds"); do
    if [[ ${#anchor_cmd[@]} -gt 0 ]]; then anchor_best=$(best "$("${anchor_cmd[@]}")" "$anchor_best"); fi
    ql_best=$(best "$(ql "${ql_args[@]}" -t "$threads")" "$ql_best")
  done
  [[ ${#anchor_cmd[@]} -gt 0 ]] || anchor_best=-  # an absolute aim: no anchor
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$label" "$unit" "$ql_best" "$anchor_best" "$aim" "$before" \
    "$trips" >>"$rows"
}

# Bare round trips from qlapi_bench first (their best of N): QGetRandom(16) over TLS on one
# thread, and TCP ping-pongs of 16 and 8192 bytes on one and two threads.
best_rnd=0
best_ping16=0
best_ping16x2=0
best_ping8kx2=0
ping_load=$(load)
for r in $(seq 1 "$rounds"); do
  "$qlapi_bench" --benchmark_filter='BM_(Random16Tls/real_time/threads:1|TcpPingPong/.*)' \
    --benchmark_min_time=1 --benchmark_format=json >"$work/qlapi.json" 2>/dev/null
  read -r rnd ping16 ping16x2 ping8kx2 < <(/usr/bin/python3 -c '
import json, sys
r = {b["name"]: b.get("items_per_second", 0.0) for b in json.load(open(sys.argv[1]))["benchmarks"]}
print(" ".join("%.0f" % r.get(n, 0) for n in (
    "BM_Random16Tls/real_time/threads:1", "BM_TcpPingPong/16/real_time/threads:1",
    "BM_TcpPingPong/16/real_time/threads:2", "BM_TcpPingPong/8192/real_time/threads:2")))' \
    "$work/qlapi.json")
  best_rnd=$(best "$rnd" "$best_rnd")
  best_ping16=$(best "$ping16" "$best_ping16")
  best_ping16x2=$(best "$ping16x2" "$best_ping16x2")
  best_ping8kx2=$(best "$ping8kx2" "$best_ping8kx2")
done

# -i is per thread; each run lasts about 2 s.
row "sign-hash rsa2048" "op/s" ">=0.92" "$best_ping16x2" speed_sign rsa2048 "$threads" -- \
  -p sign-hash -i 6000 -h sha256 -k rsa2048
row "sign-hash p256" "op/s" ">=0.65" "$best_ping16x2" speed_sign ecdsap256 "$threads" -- \
  -p sign-hash -i 30000 -h sha256 -k ecc_secp256r1
row "encrypt aes256 8KiB" "B/s" ">=0.35" "$((best_ping8kx2 / 2))" speed_aes "$threads" -- \
  -p encrypt -i 30000 -k aes256 -m 8192
row "nop -sc 0" "op/s" ">=1.0" 0 s_time_new "$threads" -- -p nop -i 1500 -sc 0
row "nop cached" "op/s" ">=20000" 0 -- -p nop -i 40000
# The round trip's time over the ping-pong's (lower is better).
printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "random16 / ping-pong" "op/s" "$best_rnd" "$best_ping16" \
  "<=1.15" "$ping_load" 0 >>"$rows"
echo "bare TCP round trips, 2 threads: 16 bytes $best_ping16x2/s, 8192 bytes $best_ping8kx2/s"

/usr/bin/python3 - "$rows" "$json" "$(nproc)" "$rounds" <<'PY'
import json, sys
rows_file, json_file, cpus, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
rows = []
print("qlhsmd per request, 2 threads, best of %d, %d CPUs" % (rounds, cpus))
print("%-22s %14s %14s %8s %6s %9s %6s %5s"
      % ("row", "qlutil", "anchor", "figure", "bound", "aim", "met", "load"))
for line in open(rows_file):
    label, unit, q, a, aim, load, trips = line.rstrip("\n").split("\t")
    absolute = a == "-"  # no anchor: the figure is the rate itself
    q, a, trips = float(q), 0.0 if absolute else float(a), float(trips)
    # The anchor in operations a second (the AES row's is in bytes of 8 KiB operations).
    a_ops = a / 8192 if unit == "B/s" else a
    bound = trips / (a_ops + trips) if trips and a_ops else None
    if absolute:
        figure = q
    elif label.startswith("random16"):
        figure = a / q if q and a else float("inf")  # round trip's time over the ping-pong's
    else:
        figure = q / a if a else 0.0  # a failed anchor never meets the aim
    target = float(aim[2:])
    met = figure >= target if aim.startswith(">=") else figure <= target
    rows.append({"row": label, "unit": unit, "qlutil": q, "anchor": a or None, "figure": figure,
                 "bound": bound, "aim": aim, "met": met, "load_before": float(load),
                 "cpus": cpus})
    print("%-22s %14.0f %14s %8.2f %6s %9s %6s %5s"
          % (label, q, "%.0f" % a if a else "-", figure, "%.2f" % bound if bound else "-", aim,
             "yes" if met else "no", load))
json.dump({"threads": 2, "rounds": rounds, "cpus": cpus, "rows": rows}, open(json_file, "w"),
          indent=2)
PY
echo "written: $json"
