#!/usr/bin/env bash
# Builds and runs the whole suite twice: a plain build, then one under
# AddressSanitizer and UndefinedBehaviorSanitizer; then the call tests under
# ThreadSanitizer and every fuzz target for a short while. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=$(nproc)

run_suite() {  # name, extra cmake arguments...
  local dir=build/$1
  shift
  echo "=== $dir"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

run_suite release
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite sanitize -DZEPHRPC_SANITIZE=ON -DZEPHRPC_BUILD_BENCH=OFF

# Threads sharing handles, under ThreadSanitizer.
echo "=== build/tsan (call tests under ThreadSanitizer)"
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPHRPC_TSAN=ON \
  -DZEPHRPC_BUILD_BRIDGE=OFF -DZEPHRPC_BUILD_BENCH=OFF -DZEPHRPC_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/tsan -j "$jobs" --target call_test
TSAN_OPTIONS=halt_on_error=1 build/tsan/tests/call_test --gtest_brief=1

# Every fuzz target for a bounded time (the seed corpus and regression
# inputs were already replayed by both suites above).
echo "=== fuzzing (scripts/fuzz.sh, 25 s a target)"
scripts/fuzz.sh 25
