#!/bin/bash
# Runs agent_footprint on the build-tree agent with the default settings and
# policies (conf/) in a temporary prefix, then says whether the agent's log
# reports lost or dropped process events.
#
#   bench/agent/run_footprint.sh BUILD_DIR [agent_footprint options...]
#   e.g. bench/agent/run_footprint.sh build --seconds 330 --warmup 30 --extra-procs 2000
set -euo pipefail
build=$(realpath "${1:?build directory}")
shift
source_dir=$(realpath "$(dirname "$0")/../..")
prefix=$(mktemp -d /tmp/corvane-footprint-XXXXXX)
trap 'rm -rf "$prefix"' EXIT
mkdir -p "$prefix/conf" "$prefix/log"
cp "$source_dir/conf/agent.json" "$prefix/conf/"
cp -r "$source_dir/conf/policies" "$prefix/conf/"
"$build/bench/agent_footprint" --agent "$build/bin/corvane-agent" "$@" -- --prefix "$prefix" \
    --module "$build/module/libprocess_collect_module.so" --module "$build/module/libnet_collect_module.so" \
    --module "$build/module/libproc_det_module.so"
losses=$(cat "$prefix"/log/*.log 2>/dev/null | grep -c -e "lost by the kernel" -e "are being dropped" || true)
echo "log lines about lost or dropped process events: $losses"
