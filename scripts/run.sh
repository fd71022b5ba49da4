#!/usr/bin/env bash
# Sets everything up and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"

# The main job: until the local HSM exists, the program shows its banner and help screen.
./build/release/bin/qlutil || true
