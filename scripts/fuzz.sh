#!/usr/bin/env bash
# Builds the libFuzzer targets under fuzz/ with clang (ASan+UBSan, coverage everywhere) in
# build-fuzz/, and runs each for a bounded time from its seed corpus. A crash, a leak or a wrong
# answer of the strings scan fails the run; the input that did it is left in build-fuzz/fuzz/.
# Usage: bash scripts/fuzz.sh [seconds per target, default 20]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
jobs=$(nproc)

CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVANE_FUZZ=ON \
  -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_BENCH=OFF ${CORVANE_FUZZ_CMAKE_ARGS:-}
targets=$(cd fuzz && ls ./*_fuzz.cpp | sed 's|^\./||; s|\.cpp$||')
# shellcheck disable=SC2086
cmake --build build-fuzz -j"$jobs" --target $targets

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
summary=build-fuzz/fuzz/summary.txt
: > "$summary"
failed=0
for target in $targets; do
  corpus=build-fuzz/fuzz/corpus/$target
  mkdir -p "$corpus"
  while read -r seed; do
    [ -n "$seed" ] && cp -r "$seed" "$corpus/" 2>/dev/null || true
  done < "build-fuzz/fuzz/$target.seeds"
  log=build-fuzz/fuzz/$target.log
  if (cd build-fuzz/fuzz && "./$target" -max_total_time="$seconds" -rss_limit_mb=2048 -max_len=65536 \
        -timeout=10 -print_final_stats=1 "corpus/$target") > "$log" 2>&1; then
    status=ok
  else
    status=FAILED
    failed=1
    tail -n 60 "$log"
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  printf '%-22s %-6s runs %-10s exec/s %s\n' "$target" "$status" "${runs:-?}" "${rate:-?}" | tee -a "$summary"
done
exit "$failed"
