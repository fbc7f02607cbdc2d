#!/usr/bin/env bash
# Proves the module SDK: installs the build (libraries, agent, and the public
# headers of host/include) under a temporary prefix, builds
# examples/module_example out of the tree against that installation only, and has
# the installed agent load it and run its task once.
#   bash scripts/check-sdk.sh BUILD_DIR
set -euo pipefail
build=$(realpath "${1:?build directory}")
source_dir=$(realpath "$(dirname "$0")/..")
work=$(mktemp -d /tmp/corvane-sdk-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" > /dev/null
cmake --install "$build" --prefix "$prefix" --component sdk > /dev/null
# Nothing of the source or build tree may be needed: a header that includes a
# private one would fail here.
cmake -S "$source_dir/examples/module_example" -B "$work/example" -DCORVANE_PREFIX="$prefix" > /dev/null
cmake --build "$work/example" > /dev/null

mkdir -p "$work/policies/90100"
echo '{"enabled": true}' > "$work/policies/90100/example_feature.json"
chmod -R go-w "$work"
"$prefix/bin/corvane-agent" --prefix "$prefix" --policy-dir "$work/policies" --alerts - --log-level information \
    --module "$work/example/libexample_module.so" --once > "$work/out.txt" 2>&1 || {
    cat "$work/out.txt"
    echo "check-sdk: the installed agent could not run the example module" >&2
    exit 1
}
if ! grep -q "example task ran 1 times" "$prefix"/log/*.log "$work/out.txt" 2>/dev/null; then
    cat "$work/out.txt" "$prefix"/log/*.log 2>/dev/null || true
    echo "check-sdk: the example module's task did not run" >&2
    exit 1
fi
echo "check-sdk: example module built against $prefix/include and run by the installed agent"
