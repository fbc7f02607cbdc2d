#!/usr/bin/env bash
# Installs what is needed, builds, installs the agent under the prefix
# (default /usr/local/corvane, or $CORVANE_PREFIX) and runs it in the
# foreground on the default policies, printing its alerts on standard output.
# Stop it with Ctrl-C. Extra arguments go to the agent.
# Usage: sudo bash scripts/run-agent.sh [agent options]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
prefix=${CORVANE_PREFIX:-/usr/local/corvane}
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_BENCH=OFF
cmake --build build-release -j"$(nproc)"
cmake --install build-release
exec "$prefix/bin/corvane-agent" --prefix "$prefix" --alerts - "$@"
