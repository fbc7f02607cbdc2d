#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test; then rebuilds with
# AddressSanitizer and UndefinedBehaviorSanitizer and runs the unit tests again; then the
# framework, collector and report unit tests and the collectors' end-to-end tests under
# ThreadSanitizer; then every fuzz target.
# Usage: sudo bash scripts/test.sh      (run from the repository root, as root)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs" --timeout 600
python3 scripts/check-includes.py
bash scripts/check-sdk.sh build
timeout 1200 bash scripts/package-test.sh build

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DCORVANE_SANITIZE=ON -DCORVANE_BUILD_BENCH=OFF
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -L unit --timeout 600

# ThreadSanitizer over the framework, the collectors and the report task: their unit tests, and the
# collectors' end-to-end tests, whose event and snapshot threads run against the real kernel.
tsan_suites="framework_test collect_unit_tests collect_e2e_tests report_test"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVANE_TSAN=ON -DCORVANE_BUILD_BENCH=OFF
# shellcheck disable=SC2086
cmake --build build-tsan -j"$jobs" --target $tsan_suites
for suite in $tsan_suites; do
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 timeout 900 "build-tsan/tests/$suite"
done

# Every fuzz target for 20 s from its seed corpus (clang, ASan+UBSan; see scripts/fuzz.sh).
bash scripts/fuzz.sh 20
