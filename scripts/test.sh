#!/usr/bin/env bash
# Runs the whole test suite: every test built with AddressSanitizer+UBSan (optimised, so
# the compiler's warnings at -O2 are checked too), the threaded tests under ThreadSanitizer,
# and each fuzz target for a bounded time. PRESETS="release asan" adds a plain release run.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)

bash scripts/install-deps.sh

JOBS=${JOBS:-$(nproc)}
FUZZ_SECONDS=${FUZZ_SECONDS:-30}

stage() { echo "=== $* (at ${SECONDS} s)"; }

run_preset() {
  local preset=$1; shift
  stage "${preset}: build"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j "${JOBS}"
  stage "${preset}: test"
  ctest --preset "${preset}" -j "${JOBS}" --timeout 300 "$@"
}

export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for preset in ${PRESETS:-asan}; do
  run_preset "${preset}"
done
# ThreadSanitizer: the binaries labelled tsan (threads, runners, shared keys), each run whole.
stage "tsan: build"
cmake --preset tsan >/dev/null
mapfile -t TSAN_TARGETS < <(grep -v '^$' build/tsan/tsan_targets.txt)
if [ ${#TSAN_TARGETS[@]} -gt 0 ]; then
  cmake --build --preset tsan -j "${JOBS}" --target "${TSAN_TARGETS[@]}"
  for t in "${TSAN_TARGETS[@]}"; do
    stage "tsan: ${t}"
    dir=$(mktemp -d)
    (cd "${dir}" && TSAN_OPTIONS=halt_on_error=1 "${ROOT}/build/tsan/bin/${t}" --gtest_brief=1)
    rm -rf "${dir}"
  done
fi

stage "fuzz"
cmake --preset fuzz >/dev/null
mapfile -t FUZZERS < <(sed -n 's/^ql_add_fuzzer(\([A-Za-z0-9_]*\).*/\1/p' tests/fuzz/CMakeLists.txt 2>/dev/null)
if [ ${#FUZZERS[@]} -gt 0 ]; then
  cmake --build --preset fuzz -j "${JOBS}" --target "${FUZZERS[@]}"
  for f in "${FUZZERS[@]}"; do
    echo "--- ${f} (${FUZZ_SECONDS}s)"
    corpus=$(mktemp -d)
    [ -d "tests/fuzz/corpus/${f}" ] && cp -r "tests/fuzz/corpus/${f}/." "${corpus}/"
    "build/fuzz/bin/${f}" -max_total_time="${FUZZ_SECONDS}" -print_final_stats=0 "${corpus}" 2>&1 | tail -n 3
    rm -rf "${corpus}"
  done
fi
stage "all tests passed"
