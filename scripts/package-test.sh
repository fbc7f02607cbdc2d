#!/usr/bin/env bash
# Builds the Debian package from a configured build directory, installs it,
# runs the installed agent (--version, --check, one --once pass), verifies the
# unit, and purges it again, checking that nothing is left behind.
# Needs root and no running systemd. Usage: bash scripts/package-test.sh [build dir]
set -euo pipefail
build=$(realpath "${1:-build}")
prefix=/usr/local/corvane
unit=/lib/systemd/system/corvane-agent.service

if dpkg-query -W -f='${Status}' corvane-agent 2>/dev/null | grep -q "ok installed"; then
  echo "package-test: corvane-agent is installed already; not touching it" >&2
  exit 1
fi
(cd "$build" && timeout 600 cpack -G DEB >/dev/null)
deb=$(ls -t "$build"/corvane-agent_*.deb | head -1)
echo "package-test: $deb"
dpkg-deb -f "$deb" Depends | grep -q libpoco || { echo "package-test: no shlibdeps in Depends" >&2; exit 1; }
dpkg-deb -e "$deb" "$build/package-control"
grep -qx "$prefix/conf/agent.json" "$build/package-control/conffiles"

# A tree installed by scripts/run-agent.sh (cmake --install) lives at the same prefix:
# set it aside so the package installs onto a clean place, and bring it back after.
saved=""
if [ -e "$prefix" ]; then
  saved="$prefix.package-test.$$"
  mv "$prefix" "$saved"
fi
restore() {
  if [ -n "$saved" ]; then
    rm -rf "$prefix"
    mv "$saved" "$prefix"
  fi
}
trap 'dpkg --purge corvane-agent >/dev/null 2>&1 || true; restore' EXIT
dpkg -i "$deb"
"$prefix/bin/corvane-agent" --version
"$prefix/bin/corvane-agent" --check
timeout 300 "$prefix/bin/corvane-agent" --once --log-level warning
test -d "$prefix/log"
# The unit must name only what the package installed.
systemd-analyze verify "$unit"
test -L /etc/systemd/system/multi-user.target.wants/corvane-agent.service

dpkg --purge corvane-agent
leftovers=$(ls -d "$prefix" "$unit" /etc/systemd/system/multi-user.target.wants/corvane-agent.service 2>/dev/null || true)
trap - EXIT
restore
if [ -n "$leftovers" ]; then
  echo "package-test: left behind after purge: $leftovers" >&2
  exit 1
fi
echo "package-test: ok"
