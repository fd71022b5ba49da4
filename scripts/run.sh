#!/usr/bin/env bash
# Sets everything up and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"

# The main job: a local qlhsmd (made on first use, then served in the background) and a
# performance test against it: RSA-2048 signatures of SHA-256 hashes on two threads.
scripts/hsm-local.sh start
port="$(scripts/hsm-local.sh port)"
./build/release/bin/qlutil -p sign-hash -t 2 -i 1000 -h sha256 -k rsa2048 \
  -a 127.0.0.1 --port "$port" -u master -w 24681357

echo
echo "The local HSM keeps running. Any other command runs the same way, for example:"
echo "  ./build/release/bin/qlutil -j list-obj -a 127.0.0.1 --port $port -u master -w 24681357"
echo "Stop it with: scripts/hsm-local.sh stop   (scripts/hsm-local.sh status tells where it is)"
