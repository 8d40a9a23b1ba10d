#!/usr/bin/env bash
# Installs the Debian 12 packages that cross-building tamrik.dll and testing it under wine
# need. Safe to run again. The 32-bit wine (wine32 of the i386 architecture) is tried as
# well; when it cannot be installed the 64-bit tests run alone and the i386 architecture is
# taken out again, so that apt is left as it was found.
set -euo pipefail
packages=(build-essential cmake ninja-build
          mingw-w64 mingw-w64-tools g++-mingw-w64-x86-64-win32 g++-mingw-w64-i686-win32
          wine wine64 libwine-dev)
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

missing=()
for p in "${packages[@]}"; do installed "$p" || missing+=("$p"); done
if [ ${#missing[@]} -gt 0 ]; then
  $sudo_cmd apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y --no-install-recommends "${missing[@]}"
fi

if [ "${TAMRIK_SKIP_WINE32:-0}" != 1 ] && ! installed wine32:i386; then
  added=0
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    $sudo_cmd dpkg --add-architecture i386
    added=1
  fi
  if $sudo_cmd apt-get update >/dev/null 2>&1 &&
     DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y --no-install-recommends wine32:i386 >/dev/null 2>&1; then
    echo "setup-windows: wine32 installed"
  else
    echo "setup-windows: wine32 (i386) could not be installed; the 32-bit module is built but not run"
    if [ "$added" = 1 ]; then
      $sudo_cmd dpkg --remove-architecture i386 || true
      $sudo_cmd apt-get update >/dev/null 2>&1 || true
    fi
  fi
fi
