#!/usr/bin/env bash
# How close to its --duration a qlutil -p run ends: each row runs for PERF_DURATION seconds
# (default 5) against a qlhsmd of its own, and shows the run's own elapsed time (the footer's and
# --json's elapsed_ms) and the command's wall-clock time, which adds the connection, the
# command's set-up (a key made and removed for sign-hash) and the process's start and exit.
#
#   bench/perf_lib/run_duration_bench.sh [qlutil] [qlhsmd]   default: build/release/bin/...
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
qlutil=${1:-$root/build/release/bin/qlutil}
qlhsmd=${2:-$root/build/release/bin/qlhsmd}
duration=${PERF_DURATION:-5}
source "$root/bench/perf_lib/local_hsm.sh"

row() {  # label threads qlutil-args...
  local label=$1 threads=$2
  shift 2
  local start end elapsed
  start=$(date +%s%N)
  "$qlutil" -a 127.0.0.1 --port "$port" -u master -w "$password" "$@" -t "$threads" \
    --duration "$duration" --json "$work/run.json" >"$work/run.out" 2>&1 || {
    echo "qlutil $* failed: $(head -n 3 "$work/run.out")" >&2
    return 1
  }
  end=$(date +%s%N)
  elapsed=$(/usr/bin/python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["elapsed_ms"])' \
    "$work/run.json")
  awk -v l="$label" -v t="$threads" -v d="$duration" -v e="$elapsed" -v w="$(( (end - start) / 1000000 ))" 'BEGIN {
    printf "%-20s threads %d  run %9.1f ms (%+7.1f)  wall %6d ms (%+6d)\n", l, t, e, e - d * 1000, w, w - d * 1000 }'
}

echo "qlutil -p --duration $duration against qlhsmd on 127.0.0.1:$port"
for t in 1 2; do
  row "nop" "$t" -p nop
  row "sign-hash rsa2048" "$t" -p sign-hash -h sha256 -k rsa2048
done
