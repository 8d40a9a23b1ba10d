#!/usr/bin/env bash
# Builds the Debian packages (libtamrik2, libtamrik-dev, tamrik-tools, python3-tamrik) with
# CPack into ${DEB_BUILD_DIR:-build-deb}: a Release build for the prefix /usr, without tests and
# benchmarks. With --install, installs them with apt-get as well.
#   scripts/build-packages.sh [--install]
set -euo pipefail
cd "$(dirname "$0")/.."
install=0
[ "${1:-}" = --install ] && install=1
build_dir="${DEB_BUILD_DIR:-build-deb}"
scripts/setup.sh
# Compiled and linked with Debian's flags (hardening among them), as a Debian package is; a
# fresh configuration so that they are the ones in force.
eval "$(dpkg-buildflags --export=sh)"
export CFLAGS="$CPPFLAGS $CFLAGS" CXXFLAGS="$CPPFLAGS $CXXFLAGS"
cmake --fresh -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DTAMRIK_BUILD_TESTS=OFF -DTAMRIK_BUILD_BENCH=OFF >/dev/null
cmake --build "$build_dir" -j "${JOBS:-$(nproc)}"
rm -f "$build_dir"/*.deb
(cd "$build_dir" && cpack -G DEB >/dev/null)
ls "$build_dir"/*.deb
if [ $install -eq 1 ]; then
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y "$(realpath "$build_dir")"/*.deb
fi
