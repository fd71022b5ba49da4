#!/usr/bin/env bash
# The HSM's crypto path beside openssl speed, in one run on this machine, at 1 and 2 threads
# (1 thread beside one openssl process, 2 threads beside -multi 2):
#
#   QSignHash RSA-2048 (SHA-256 value)      openssl speed rsa2048
#   QSignHash ECDSA P-256 (SHA-256 value)   openssl speed ecdsap256
#   QEncrypt AES-256-CBC 1 KiB, 8 KiB       openssl speed -evp aes-256-cbc -bytes 1024 / 8192
#   SHA-256 of 1 KiB, 8 KiB (in libqlapi)   openssl speed -evp sha256 -bytes 1024 / 8192
#
# crypto_bench starts its own qlhsmd on a free loopback port with a temporary data directory.
# Each side runs CRYPTO_BENCH_ROUNDS times, alternating, and keeps its best figure; the load
# average (uptime) at each side's best round is printed beside it, since the machine is shared.
#
#   bench/crypto/run.sh [path/to/crypto_bench]      default: build/release/bin/crypto_bench
#   CRYPTO_BENCH_ROUNDS=3      rounds of each side
#   CRYPTO_BENCH_SECONDS=2     length of each openssl speed run and each benchmark (min time)
#   CRYPTO_BENCH_PLAIN=1       the library talks plain TCP instead of TLS 1.3
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
bench=${1:-$root/build/release/bin/crypto_bench}
rounds=${CRYPTO_BENCH_ROUNDS:-3}
secs=${CRYPTO_BENCH_SECONDS:-2}
[[ -x $bench ]] || { echo "run.sh: no benchmark binary at $bench (build the release preset)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

load() { awk '{ print $1 }' /proc/loadavg; }

# openssl speed's figure: sign/s of an RSA or ECDSA line, or bytes/s of a cipher or digest line
# ("k" is thousands of bytes). With -multi the last line is the sum over the processes.
# -elapsed: per second of real time, as the benchmark counts and as -multi does; without it one
# openssl process divides by its own CPU time, which on a shared machine no caller gets.
speed() {  # threads args...
  local threads=$1
  shift
  local multi=()
  [[ $threads -gt 1 ]] && multi=(-multi "$threads")
  openssl speed -elapsed -seconds "$secs" "${multi[@]}" "$@" 2>/dev/null | tail -n 1 |
    awk -v sign="$([[ $* == *-evp* ]] && echo 0 || echo 1)" '{
      if (sign) { print $(NF-1); exit }
      v = $NF; sub(/k$/, "", v); printf "%.0f\n", v * 1000 }'
}

# Anchors: "name threads value load" lines, best of the rounds.
anchors() {
  local t
  for t in 1 2; do
    echo "rsa2048 $t $(speed "$t" rsa2048) $(load)"
    echo "p256 $t $(speed "$t" ecdsap256) $(load)"
    echo "aes1k $t $(speed "$t" -evp aes-256-cbc -bytes 1024) $(load)"
    echo "aes8k $t $(speed "$t" -evp aes-256-cbc -bytes 8192) $(load)"
    echo "sha1k $t $(speed "$t" -evp sha256 -bytes 1024) $(load)"
    echo "sha8k $t $(speed "$t" -evp sha256 -bytes 8192) $(load)"
  done
}

for r in $(seq 1 "$rounds"); do
  echo "== round $r/$rounds: openssl speed (load $(load))" >&2
  anchors >>"$work/anchors.txt"
  echo "== round $r/$rounds: crypto_bench (load $(load))" >&2
  before=$(load)
  "$bench" --benchmark_min_time="$secs" --benchmark_format=console \
    --benchmark_out="$work/bench.$r.json" --benchmark_out_format=json >"$work/bench.$r.log" 2>&1 ||
    { cat "$work/bench.$r.log" >&2; exit 1; }
  echo "$before $(load)" >"$work/bench.$r.load"
done

python3 - "$work" "$rounds" <<'PY'
import json, sys, os
work, rounds = sys.argv[1], int(sys.argv[2])
# Best anchor of each (name, threads), with the load average when it ran.
anchor = {}
for line in open(os.path.join(work, "anchors.txt")):
    name, t, v, l = line.split()
    v = float(v or 0)
    if v > anchor.get((name, int(t)), (0, 0))[0]:
        anchor[(name, int(t))] = (v, float(l))
# Best benchmark figure: operations/s for signatures, bytes/s for the rest.
ours = {}
for r in range(1, rounds + 1):
    path = os.path.join(work, "bench.%d.json" % r)
    if not os.path.exists(path):
        continue
    l0, l1 = open(os.path.join(work, "bench.%d.load" % r)).read().split()
    load = max(float(l0), float(l1))
    for b in json.load(open(path))["benchmarks"]:
        if b.get("error_occurred"):
            continue
        n = b["name"]
        t = int(n.rsplit("threads:", 1)[1])
        key = None
        if n.startswith("BM_SignRsa2048/"): key, v = "rsa2048", b["items_per_second"]
        elif n.startswith("BM_SignP256/"): key, v = "p256", b["items_per_second"]
        elif n.startswith("BM_EncryptAes256Cbc/1024/"): key, v = "aes1k", b["bytes_per_second"]
        elif n.startswith("BM_EncryptAes256Cbc/8192/"): key, v = "aes8k", b["bytes_per_second"]
        elif n.startswith("BM_Sha256/1024/"): key, v = "sha1k", b["bytes_per_second"]
        elif n.startswith("BM_Sha256/8192/"): key, v = "sha8k", b["bytes_per_second"]
        if key and v > ours.get((key, t), (0, 0))[0]:
            ours[(key, t)] = (v, load)
rows = [
    ("rsa2048", "QSignHash RSA-2048", "sign/s", 1, "aim >= 85% at 2 threads"),
    ("p256", "QSignHash P-256", "sign/s", 1, ""),
    ("aes1k", "QEncrypt AES-256-CBC 1K", "MB/s", 1e6, ""),
    ("aes8k", "QEncrypt AES-256-CBC 8K", "MB/s", 1e6, "aim >= 40%"),
    ("sha1k", "SHA-256 1K (library)", "MB/s", 1e6, ""),
    ("sha8k", "SHA-256 8K (library)", "MB/s", 1e6, ""),
]
print("crypto_bench (libqlapi -> qlhsmd, 127.0.0.1) beside openssl speed, best of %d rounds" % rounds)
print("%-26s %3s  %12s %6s  %12s %6s  %7s  %s" %
      ("", "thr", "qlhsmd", "load", "openssl", "load", "ratio", ""))
for key, label, unit, scale, aim in rows:
    for t in (1, 2):
        q, ql = ours.get((key, t), (0, 0))
        a, al = anchor.get((key, t), (0, 0))
        ratio = "%6.1f%%" % (100 * q / a) if a else "   n/a"
        print("%-26s %3d  %8.1f %-6s %4.2f  %8.1f %-6s %4.2f  %s  %s" %
              (label, t, q / scale, unit, ql, a / scale, unit, al, ratio,
               aim if (t == 2 or "aim >= 40" in aim) else ""))
PY
