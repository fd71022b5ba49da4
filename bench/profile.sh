#!/usr/bin/env bash
# Where the CPU of one kind of request goes, client and daemon: runs a qlutil -p command against a
# qlhsmd of its own while `perf record` samples both processes, then prints each side's share by
# shared object (the cryptography in libcrypto, TLS records in libssl, system calls in the
# kernel, protobuf, copies in libc, the engine in qlhsmd) and its top symbols.
#
#   bench/profile.sh [build-dir] -- qlutil-args...      default build: build/release
#   bench/profile.sh -- -p sign-hash -i 20000 -h sha256 -k ecc_secp256r1 -t 2
#
# Needs perf (Debian linux-perf) and kernel.perf_event_paranoid <= 2 (the cpu-clock event of
# one's own processes).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/release
if [[ ${1:-} != -- ]]; then build=$1; shift; fi
[[ ${1:-} == -- ]] && shift
qlutil=$build/bin/qlutil
qlhsmd=$build/bin/qlhsmd
top=${PROFILE_TOP:-12}
command -v perf >/dev/null || { echo "profile.sh: perf is not installed (Debian linux-perf)" >&2; exit 1; }
source "$root/bench/perf_lib/local_hsm.sh"

perf record -q -F 1999 -p "$hsm_pid" -o "$work/daemon.data" 2>/dev/null &
daemon_perf=$!
sleep 0.5
perf record -q -F 1999 -o "$work/client.data" -- \
  "$qlutil" -a 127.0.0.1 --port "$port" -u master -w "$password" "$@" >"$work/run.out" 2>&1 || {
  echo "qlutil $* failed:" >&2
  cat "$work/run.out" >&2
}
kill -INT "$daemon_perf"
wait "$daemon_perf" 2>/dev/null || true

report() {  # title data
  local samples
  samples=$(perf script -i "$2" -F ip 2>/dev/null | wc -l)
  echo "== $1: $samples samples at 1999 Hz ($(awk -v n="$samples" 'BEGIN { printf "%.2f", n / 1999 }') CPU seconds)"
  perf report -i "$2" --stdio --sort dso 2>/dev/null | grep -v '^#' | grep -v '^$' | head -n 8 || true
  echo "-- top symbols"
  perf report -i "$2" --stdio --sort dso,sym 2>/dev/null | grep -v '^#' | grep -v '^$' |
    head -n "$top" || true
}
echo "qlutil $*"
grep -v '^$' "$work/run.out" | tail -n 3
report "daemon (qlhsmd)" "$work/daemon.data"
report "client (qlutil)" "$work/client.data"
