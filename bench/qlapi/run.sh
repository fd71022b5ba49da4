#!/usr/bin/env bash
# libqlapi's session and round-trip costs beside their anchors, in one run on this machine:
#   - qlapi_bench (it starts its own qlhsmd on a free loopback port);
#   - openssl s_time -new against openssl s_server with an RSA-2048 certificate, TLS 1.3,
#     1 client and 2 clients at once (the anchor of an uncached session open);
# and prints the figures with their ratios.
#
#   bench/qlapi/run.sh [path/to/qlapi_bench]    default: build/release/bin/qlapi_bench
#   SECONDS_PER_RUN=5 bench/qlapi/run.sh        length of each s_time run
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
bench=${1:-$root/build/release/bin/qlapi_bench}
secs=${SECONDS_PER_RUN:-5}
[[ -x $bench ]] || { echo "run.sh: no benchmark binary at $bench (build the release preset)" >&2; exit 1; }

work=$(mktemp -d)
server_pid=
cleanup() {
  [[ -n $server_pid ]] && kill "$server_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

echo "== qlapi_bench"
"$bench" --benchmark_min_time=1 --benchmark_format=console \
  --benchmark_out="$work/qlapi.json" --benchmark_out_format=json

echo "== openssl s_time -new against openssl s_server (RSA-2048, TLS 1.3)"
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/key.pem" -out "$work/cert.pem" \
  -subj /CN=anchor -days 1 2>/dev/null
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
openssl s_server -accept "127.0.0.1:$port" -cert "$work/cert.pem" -key "$work/key.pem" \
  -tls1_3 -quiet -naccept 1000000 </dev/null >/dev/null 2>&1 &
server_pid=$!
sleep 1

# One s_time client: prints its connections per second of real time.
stime() {
  openssl s_time -connect "127.0.0.1:$port" -new -tls1_3 -time "$secs" 2>/dev/null |
    awk '/connections in .* real seconds/ { printf "%.1f\n", $1 / $4 }'
}
s1=$(stime)
s2a_file="$work/s2a"; s2b_file="$work/s2b"
stime >"$s2a_file" & a=$!
stime >"$s2b_file" & b=$!
wait $a $b
s2=$(awk '{ sum += $1 } END { printf "%.1f\n", sum }' "$s2a_file" "$s2b_file")
echo "s_time -new, 1 client : $s1 handshakes/s"
echo "s_time -new, 2 clients: $s2 handshakes/s"

echo "== summary"
python3 - "$work/qlapi.json" "$s1" "$s2" <<'PY'
import json, sys
data = json.load(open(sys.argv[1]))
s1, s2 = float(sys.argv[2] or 0), float(sys.argv[3] or 0)
rate = {}
for b in data["benchmarks"]:
    rate[b["name"]] = b.get("items_per_second", 0.0)
def get(prefix, threads):
    for name, r in rate.items():
        if name.startswith(prefix + "/") and name.endswith("threads:%d" % threads):
            return r
    return 0.0
def ratio(a, b):
    return "%.2f" % (a / b) if b else "n/a"
cached2 = get("BM_OpenCloseCached", 2)
print("open/close, cache on,  1 thread : %9.0f pairs/s" % get("BM_OpenCloseCached", 1))
print("open/close, cache on,  2 threads: %9.0f pairs/s   (aim >= 20000)" % cached2)
for t, anchor in ((1, s1), (2, s2)):
    tls = get("BM_OpenCloseTls", t)
    print("open/close, cache off, TLS, %d thread(s): %8.0f pairs/s   s_time %8.0f/s   ratio %s (aim >= 0.70)"
          % (t, tls, anchor, ratio(tls, anchor)))
rnd = get("BM_Random16Plain", 1)
rnd_tls = get("BM_Random16Tls", 1)
ping = get("BM_TcpPingPong/16", 1)
print("QGetRandom(16) round trip, plain: %8.0f/s = %.1f us" % (rnd, 1e6 / rnd if rnd else 0))
print("QGetRandom(16) round trip, TLS  : %8.0f/s = %.1f us" % (rnd_tls, 1e6 / rnd_tls if rnd_tls else 0))
print("bare TCP ping-pong (16 bytes)   : %8.0f/s = %.1f us" % (ping, 1e6 / ping if ping else 0))
print("round trip / ping-pong time     : plain %s, TLS %s (aim <= 2)"
      % (ratio(ping, rnd), ratio(ping, rnd_tls)))
PY
