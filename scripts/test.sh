#!/usr/bin/env bash
# Builds and runs the whole suite twice: a plain build, then one under
# AddressSanitizer and UndefinedBehaviorSanitizer, then every fuzz target for a
# short while. Exits non-zero on any failure.
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

# Every fuzz target for a bounded time (the seed corpus and regression
# inputs were already replayed by both suites above).
echo "=== fuzzing (scripts/fuzz.sh, 25 s a target)"
scripts/fuzz.sh 25
