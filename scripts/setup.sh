#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing tamrik need. Safe to run again.
set -euo pipefail
packages=(build-essential cmake ninja-build pkg-config libgtest-dev libgmock-dev googletest
          libbenchmark-dev libmodbus-dev libcli11-dev nlohmann-json3-dev
          clang libclang-rt-14-dev clang-tidy cppcheck valgrind iproute2 groff-base
          libcpp-httplib-dev python3 python3-pytest python3-pytest-asyncio python3-setuptools
          python3-wheel python3-venv python3-pip python3-pymodbus python3-serial-asyncio
          libtomlplusplus-dev libmosquitto-dev mosquitto tshark chromium
          dpkg-dev fakeroot lintian)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y --no-install-recommends "${missing[@]}"
fi
