#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test; then rebuilds with
# AddressSanitizer and UndefinedBehaviorSanitizer and runs the unit tests again.
# Usage: sudo bash scripts/test.sh      (run from the repository root, as root)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs" --timeout 600
timeout 1200 bash scripts/package-test.sh build

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DCORVANE_SANITIZE=ON -DCORVANE_BUILD_BENCH=OFF
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -L unit --timeout 600
