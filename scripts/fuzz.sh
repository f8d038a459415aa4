#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer (ASan + UBSan) and runs each
# for SECONDS (default 30) on a copy of its seed corpus. A crash, leak, hang
# or memory blow-up fails the run and leaves the input in build/fuzz/findings:
# add it to tests/fuzz/regressions/<target>/ once fixed.
#   scripts/fuzz.sh [SECONDS] [TARGET...]
# A long campaign: FUZZ_RUNS=N runs N inputs per target instead of a time
# limit, and FUZZ_CORPUS=DIR keeps each target's corpus in DIR/<target>
# (seeded from the repository's) so campaigns can be resumed.
# FUZZ_BUILD=DIR builds elsewhere than build/fuzz. FUZZ_TIMEOUT=SECONDS sets
# when one input counts as a hang (default 10; raise it for a campaign that
# may be paused while the machine does other work).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(client_negotiation server_negotiation server_dispatch client_reply packets decoders)

dir=${FUZZ_BUILD:-build/fuzz}
CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPHRPC_FUZZ=ON \
  -DZEPHRPC_BUILD_BRIDGE=OFF -DZEPHRPC_BUILD_BENCH=OFF -DZEPHRPC_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]/#/fuzz_}" >/dev/null

findings=$dir/findings
mkdir -p "$findings"
# Capacities a peer announces may be huge: allocations over 24 MiB fail
# here (the library then reports error 3) instead of taking the fuzzer's
# time; what counts is resident memory, which -rss_limit_mb bounds. (libFuzzer
# itself needs single allocations of 20 MiB.)
export ASAN_OPTIONS=allocator_may_return_null=1:max_allocation_size_mb=24:detect_leaks=1
limit=(-max_total_time="$seconds")
[ -n "${FUZZ_RUNS:-}" ] && limit=(-runs="$FUZZ_RUNS")
status=0
for target in "${targets[@]}"; do
  if [ -n "${FUZZ_CORPUS:-}" ]; then
    work=$FUZZ_CORPUS/$target
    mkdir -p "$work"
  else
    work=$(mktemp -d)
  fi
  cp -rn "tests/fuzz/corpus/$target/." "$work/"
  echo "=== fuzz_$target: ${limit[*]}"
  if ! "$dir/tests/fuzz/fuzz_$target" "$work" "${limit[@]}" -timeout="${FUZZ_TIMEOUT:-10}" \
      -rss_limit_mb=1024 -malloc_limit_mb=65536 -max_len=20000 -print_final_stats=1 \
      -artifact_prefix="$findings/$target-" > "$findings/$target.log" 2>&1; then
    status=1
    tail -n 40 "$findings/$target.log"
  fi
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb|cov:" "$findings/$target.log" | tail -n 3
  [ -n "${FUZZ_CORPUS:-}" ] || rm -rf "$work"
done
exit $status
