#!/usr/bin/env bash
# Line and branch coverage of host/ and module/ under the unit and end-to-end
# suites. Builds with gcc --coverage in build-cov/, runs ctest there, and
# writes build-cov/coverage/summary.txt (one row per library, then the total)
# and build-cov/coverage/index.html. The end-to-end tests start the agent and
# real processes, so run it as root.
# Usage: sudo bash scripts/coverage.sh [extra ctest arguments, e.g. -L unit]
#        bash scripts/coverage.sh --report-only   (the report again from the last run's counters)
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
build=${CORVANE_COV_BUILD:-build-cov}
jobs=${CORVANE_COV_JOBS:-$(nproc)}
out=$build/coverage
status=0

build_and_test() {
  local launcher=()
  if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
  fi
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCORVANE_BUILD_BENCH=OFF "${launcher[@]}" \
    -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc \
    -DCMAKE_CXX_FLAGS="--coverage -O0" -DCMAKE_C_FLAGS="--coverage -O0" \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage
  cmake --build "$build" -j"$jobs"
  # Counters from an earlier run would add up with this one.
  find "$build" -name '*.gcda' -delete
  ctest --test-dir "$build" --output-on-failure -j"$jobs" --timeout 900 "$@" || status=$?
}

# Prints "<name> <lines> <line%> <branches> <branch%>" from a gcovr JSON summary.
summary_row() {
  python3 - "$1" "$2" <<'EOF'
import json, sys
s = json.load(open(sys.argv[2]))
if s["line_total"]:
    print("%-28s %8d %7.1f%% %8d %7.1f%%" % (sys.argv[1], s["line_total"], s["line_percent"],
                                             s["branch_total"], s["branch_percent"]))
EOF
}

if [ "${1:-}" != "--report-only" ]; then
  build_and_test "$@"
fi
rm -rf "$out" && mkdir -p "$out"

# One pass over the counters; each library's row is then read from the JSON.
# Threads racing on a counter can leave a negative branch count that gcov prints
# as "taken -1"; such lines are skipped rather than failing the report.
gcovr --root "$src" --exclude-unreachable-branches --exclude-throw-branches --gcov-ignore-parse-errors \
  --filter "$src/host/" --filter "$src/module/" --json "$out/coverage.json" "$build"
gcovr --root "$src" -a "$out/coverage.json" --html-details "$out/index.html"
{
  printf '%-28s %8s %8s %8s %8s\n' library lines line% branches branch%
  for lib in $(ls -d host/*/ module/*/) host/ module/; do
    gcovr --root "$src" -a "$out/coverage.json" --filter "$src/$lib" --json-summary "$out/part.json"
    summary_row "${lib%/}" "$out/part.json"
  done
  gcovr --root "$src" -a "$out/coverage.json" --json-summary "$out/part.json"
  summary_row total "$out/part.json"
} | tee "$out/summary.txt"
rm -f "$out/part.json"
exit "$status"
