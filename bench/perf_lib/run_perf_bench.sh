#!/usr/bin/env bash
# qlutil's -p commands through libqlapi against a qlhsmd of their own, beside their anchors on
# this machine, in one run, at 1 and 2 threads:
#
#   -p sign-hash RSA-2048      openssl speed rsa2048          (2 threads: -multi 2)
#   -p sign-hash P-256         openssl speed ecdsap256        (2 threads: -multi 2)
#   -p encrypt AES-256 8 KiB   openssl speed -evp aes-256-cbc -bytes 8192
#   -p nop (new connections)   openssl s_time -new against the same qlhsmd (TLS 1.3 handshakes
#                              per second of real time; 2 threads: two s_time at once)
#
# Each side runs PERF_BENCH_ROUNDS times, alternating, and keeps its best figure; the ratio is
# qlutil's over the anchor's. The aim for sign-hash RSA-2048 on 2 threads is 85% or more.
#
#   bench/perf_lib/run_perf_bench.sh [qlutil] [qlhsmd]   default: build/release/bin/...
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
qlutil=${1:-$root/build/release/bin/qlutil}
qlhsmd=${2:-$root/build/release/bin/qlhsmd}
rounds=${PERF_BENCH_ROUNDS:-3}
secs=${PERF_BENCH_SECONDS:-3}
iter_rsa=${PERF_BENCH_ITER_RSA:-1500}
iter_ec=${PERF_BENCH_ITER_EC:-4000}
iter_aes=${PERF_BENCH_ITER_AES:-4000}
iter_nop=${PERF_BENCH_ITER_NOP:-300}
source "$root/bench/perf_lib/local_hsm.sh"

source "$root/bench/perf_lib/anchors.sh"

row() {  # label unit threads anchor-command... -- qlutil-args...
  local label=$1 unit=$2 threads=$3
  shift 3
  local anchor_cmd=() ql_args=()
  while [[ $1 != -- ]]; do anchor_cmd+=("$1"); shift; done
  shift
  ql_args=("$@")
  local anchor_best=0 ql_best=0 r
  for r in $(seq 1 "$rounds"); do
    anchor_best=$(best "$("${anchor_cmd[@]}")" "$anchor_best")
    ql_best=$(best "$(ql "${ql_args[@]}" -t "$threads")" "$ql_best")
  done
  awk -v l="$label" -v u="$unit" -v t="$threads" -v a="$anchor_best" -v q="$ql_best" 'BEGIN {
    printf "%-22s threads %d  anchor %12.0f %-5s  qlutil %12.0f %-5s  ratio %6.1f%%\n",
           l, t, a, u, q, u, (a > 0 ? 100 * q / a : 0) }'
}

echo "qlutil -p (libqlapi, qlhsmd on 127.0.0.1:$port) beside openssl, best of $rounds"
for t in 1 2; do
  row "sign-hash rsa2048" "op/s" "$t" speed_sign rsa2048 "$t" -- \
    -p sign-hash -i "$iter_rsa" -h sha256 -k rsa2048
  row "sign-hash p256" "op/s" "$t" speed_sign ecdsap256 "$t" -- \
    -p sign-hash -i "$iter_ec" -h sha256 -k ecc_secp256r1
  row "encrypt aes256 8KiB" "B/s" "$t" speed_aes "$t" -- \
    -p encrypt -i "$iter_aes" -k aes256 -m 8192
  row "nop (-sc 0)" "op/s" "$t" s_time_new "$t" -- -p nop -i "$iter_nop" -sc 0
done
# The session cache's effect, without an anchor.
for t in 1 2; do
  echo "nop (cached sessions)  threads $t  qlutil $(ql -p nop -i "$iter_nop" -t "$t") op/s"
done
