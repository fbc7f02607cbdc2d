#!/usr/bin/env bash
# Installs the Debian 12 packages the agent builds, runs and tests with.
set -euo pipefail
packages=(
  build-essential cmake pkg-config clang-format
  libpoco-dev libjsoncpp-dev libssl-dev libcurl4-openssl-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  prometheus-cpp-dev libsystemd-dev systemd dpkg-dev fakeroot file lintian logrotate
  procps libcap2-bin python3 yara login bsdutils util-linux
  librdkafka-dev librelp-dev rsyslog rsyslog-openssl rsyslog-relp openssl
  clang-14 libfuzzer-14-dev libclang-rt-14-dev
  gcovr forkstat
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
