#!/usr/bin/env bash
# The daemon against hostile clients, in one run on this machine (not a test: figures only):
#   - 1,000 connections each announcing a 16 MiB frame, before a login and after one: how much
#     the daemon's resident memory grows (it must stay under 64 MiB);
#   - a wrong password for a user that exists and for a name that does not, at the default
#     password-hash cost: the mean answer times and their ratio (within 10 %).
#
#   bench/network/run.sh [path/to/network_bench]    default: build/release/bin/network_bench
#   CONNECTIONS=1000 ROUNDS=60 bench/network/run.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
bench=${1:-$root/build/release/bin/network_bench}
[[ -x $bench ]] || { echo "run.sh: no benchmark binary at $bench (build the release preset)" >&2; exit 1; }
# Each connection is a descriptor on both sides.
ulimit -n "$(ulimit -Hn)" 2>/dev/null || true
exec "$bench" "${CONNECTIONS:-1000}" "${ROUNDS:-60}"
