#!/usr/bin/env bash
# Builds the Debian packages from a configured build directory and checks them:
# - lintian reports no error or warning that the package does not override with a reason, the
#   binaries are stripped and corvane-agent-dbgsym holds the debug information of each;
# - as CI runs it, without systemd: install, the installed agent (--version, --check, one --once
#   pass), the unit, the logrotate snippet, an upgrade (which keeps the service disabled when the
#   administrator disabled it), a purge that leaves nothing behind;
# - with a stand-in for systemd (a private mount namespace where /run/systemd/system exists and
#   `systemctl` runs the installed unit's commands): a new installation does not start the
#   service, an upgrade restarts the running one (it runs the new binary, not the deleted old
#   one), removal stops it.
# dpkg must not warn at any step. Needs root and no running systemd.
# Usage: bash scripts/package-test.sh [build dir]
set -euo pipefail
prefix=/usr/local/corvane
unit=/lib/systemd/system/corvane-agent.service
wants=/etc/systemd/system/multi-user.target.wants/corvane-agent.service
written=(/etc/corvane /var/log/corvane /var/spool/corvane)

fail() {
  echo "package-test: $*" >&2
  exit 1
}

# dpkg ARGS...: runs dpkg, failing on an error or on any warning it prints.
dpkg_clean() {
  local out
  out=$(dpkg "$@" 2>&1) || { echo "$out" >&2; fail "dpkg $* failed"; }
  if grep -qi "warning" <<<"$out"; then
    echo "$out" >&2
    fail "dpkg $* warned"
  fi
}

check_nothing_left() {
  local left
  left=$(ls -d "$prefix" "$unit" "$wants" /etc/logrotate.d/corvane-agent "${written[@]}" \
    /var/lib/systemd/deb-systemd-helper-enabled/multi-user.target.wants/corvane-agent.service 2>/dev/null || true)
  [ -z "$left" ] || fail "left behind after purge: $left"
}

# The stand-in for systemd: this script again, in a private mount namespace (see the end).
if [ "${1:-}" = "--systemd-stand-in" ]; then
  deb=$2
  next=$3
  state=$(mktemp -d)
  export CORVANE_SERVICE_STATE=$state
  trap 'kill "$(cat "$state/pid" 2>/dev/null)" 2>/dev/null || true; rm -rf "$state"' EXIT
  mount -t tmpfs tmpfs /run
  mkdir -p /run/systemd/system "$state/bin"
  # A container's policy-rc.d forbids service actions; the booted host stood in for allows them.
  if [ -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 0\n' >"$state/policy-rc.d"
    chmod 0755 "$state/policy-rc.d"
    mount --bind "$state/policy-rc.d" /usr/sbin/policy-rc.d
  fi
  cat >"$state/bin/systemctl" <<'EOF'
#!/usr/bin/env bash
# systemctl for corvane-agent.service alone: runs the installed unit's ExecStartPre and ExecStart,
# stops with SIGTERM as systemd does.
set -u
state=$CORVANE_SERVICE_STATE
unit=/lib/systemd/system/corvane-agent.service
words=()
for word in "$@"; do [[ $word == -* ]] || words+=("$word"); done
# Alive, not a zombie waiting for whoever adopted it.
alive() { [ -n "$(readlink "/proc/$1/exe" 2>/dev/null)" ]; }
running() { [ -f "$state/pid" ] && alive "$(cat "$state/pid")"; }
start() {
  $(sed -n 's/^ExecStartPre=//p' "$unit") >>"$state/journal" 2>&1 || return 1
  $(sed -n 's/^ExecStart=//p' "$unit") </dev/null >>"$state/journal" 2>&1 &
  echo $! >"$state/pid"
}
stop() {
  if running; then
    local pid
    pid=$(cat "$state/pid")
    kill -TERM "$pid"
    for _ in $(seq 600); do alive "$pid" || break; sleep 0.1; done
    ! alive "$pid" || kill -KILL "$pid"
  fi
  rm -f "$state/pid"
}
echo "${words[*]}" >>"$state/calls"
case ${words[0]:-} in
  start) running || start ;;
  stop) stop ;;
  restart) stop; start ;;
  try-restart) if running; then stop; start; fi ;;
  is-active) running ;;
  is-enabled) if [ -L /etc/systemd/system/multi-user.target.wants/corvane-agent.service ]; then echo enabled; else echo disabled; exit 1; fi ;;
  daemon-reload | kill | preset) ;;
  *) echo "systemctl stand-in: $* is not handled" >&2; exit 1 ;;
esac
EOF
  chmod 0755 "$state/bin/systemctl"
  export PATH="$state/bin:$PATH"

  # runs_agent PID: PID runs the installed agent (waiting out the fork before its exec).
  runs_agent() {
    for _ in $(seq 100); do
      [ "$(readlink "/proc/$1/exe" 2>/dev/null)" != "$prefix/bin/corvane-agent" ] || return 0
      sleep 0.1
    done
    return 1
  }
  dpkg_clean -i "$deb"
  [ ! -f "$state/pid" ] || fail "a new installation started the service"
  systemctl start corvane-agent.service
  old_pid=$(cat "$state/pid")
  runs_agent "$old_pid" || fail "the service did not start: $(cat "$state/journal")"
  dpkg_clean -i "$next"
  new_pid=$(cat "$state/pid" 2>/dev/null) || fail "the upgrade stopped the service and did not start it again"
  if [ "$new_pid" = "$old_pid" ] || ! runs_agent "$new_pid"; then
    fail "after the upgrade pid $new_pid (was $old_pid) runs $(readlink "/proc/$new_pid/exe"): $(cat "$state/journal")"
  fi
  dpkg_clean -r corvane-agent
  [ -z "$(readlink "/proc/$new_pid/exe" 2>/dev/null)" ] || fail "removal left the service running"
  [ -f /etc/corvane/agent.json ] || fail "removal took the configuration"
  dpkg_clean --purge corvane-agent
  check_nothing_left
  echo "package-test: restarted on upgrade ($old_pid -> $new_pid), stopped on removal: $(paste -sd, "$state/calls")"
  exit 0
fi

build=$(realpath "${1:-build}")
source_dir=$(realpath "$(dirname "$0")/..")
if dpkg-query -W -f='${Status}' corvane-agent 2>/dev/null | grep -q "ok installed"; then
  fail "corvane-agent is installed already; not touching it"
fi
for dir in "${written[@]}"; do
  [ ! -e "$dir" ] || fail "$dir exists without the package (left from an earlier run?); not touching it"
done

(cd "$build" && rm -f corvane-agent_*.deb corvane-agent-dbgsym_*.ddeb && timeout 600 cpack -G DEB >/dev/null)
deb=$(ls "$build"/corvane-agent_*.deb)
ddeb=$(ls "$build"/corvane-agent-dbgsym_*.ddeb)
version=$(dpkg-deb -f "$deb" Version)
echo "package-test: $deb ($(du -k "$deb" | cut -f1) KiB), $ddeb ($(du -k "$ddeb" | cut -f1) KiB)"
# The same build with the next Debian revision, to upgrade to.
release=${version##*-}
rm -rf "$build/package-next"
(cd "$build" && timeout 600 cpack -G DEB -B "$build/package-next" -D CPACK_DEBIAN_PACKAGE_RELEASE=$((release + 1)) >/dev/null)
next=$(ls "$build"/package-next/corvane-agent_*.deb)

lintian --fail-on error,warning "$deb" "$ddeb" 2> >(grep -v "running with root privileges" >&2) ||
  fail "lintian: fix the package, or override the tag in packaging/debian/lintian-overrides.in with a reason"
changelog_version=$(dpkg-parsechangelog -l "$source_dir/packaging/debian/changelog" -S Version)
[ "$changelog_version" = "$version" ] ||
  fail "packaging/debian/changelog's latest entry is $changelog_version, the package $version"
dpkg-deb -f "$deb" Depends | grep -q libpoco || fail "no shlibdeps in Depends"
unpacked=$(mktemp -d)
dpkg-deb -x "$deb" "$unpacked"
debug_files=$(dpkg-deb -c "$ddeb")
for elf in "$unpacked$prefix"/bin/* "$unpacked$prefix"/lib/*.so "$unpacked$prefix"/module/*.so; do
  id=$(readelf -n "$elf" | sed -n 's/.*Build ID: //p')
  grep -q "/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" <<<"$debug_files" ||
    fail "no debug information for ${elf#"$unpacked"} (build id $id) in $ddeb"
done
rm -rf "$unpacked"

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

# Without systemd.
dpkg_clean -i "$deb"
"$prefix/bin/corvane-agent" --version
"$prefix/bin/corvane-agent" --check
timeout 300 "$prefix/bin/corvane-agent" --once --log-level warning
grep -q '"target": "journal"' "$prefix/conf/agent.json" || fail "the packaged agent.json does not log to the journal"
[ "$(stat -c %a /var/log/corvane /var/spool/corvane /etc/corvane/agent.json | paste -sd' ')" = "700 700 600" ] ||
  fail "modes of /var/log/corvane, /var/spool/corvane, /etc/corvane/agent.json are not 700 700 600"
# The unit must name only what the package installed.
systemd-analyze verify "$unit"
test -L "$wants" || fail "the service is not enabled"
rotation=$(logrotate --debug /etc/logrotate.d/corvane-agent 2>&1)
if ! grep -q "rotating pattern: /var/log/corvane/alerts.json" <<<"$rotation" || grep -q "^error" <<<"$rotation"; then
  fail "logrotate on /etc/logrotate.d/corvane-agent: $rotation"
fi
# What `systemctl disable` does; the upgrade must not enable the service again.
rm "$wants"
dpkg_clean -i "$next"
[ ! -e "$wants" ] || fail "the upgrade enabled the service the administrator had disabled"
dpkg_clean --purge corvane-agent
check_nothing_left

# With the stand-in for systemd.
unshare --mount --propagation private -- bash "$0" --systemd-stand-in "$deb" "$next"
trap - EXIT
restore
echo "package-test: ok"
