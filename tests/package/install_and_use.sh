#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds a host program against it twice:
# with find_package(tamrik) and with pkg-config. Then runs both and the installed tool.
#   install_and_use.sh BUILD_DIR HOST_SOURCE_DIR
set -euo pipefail
build_dir=$1
host_dir=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/tamrik-package-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
for f in include/tamrik.h include/tamrik_version.h share/tamrik/kaVdmo.ini bin/tamrik bin/tamrik-sim; do
  [ -e "$prefix/$f" ] || { echo "missing after install: $f"; exit 1; }
done
libdir=$(dirname "$(find "$prefix" -name 'libtamrik.so' | head -n 1)")
[ -n "$libdir" ] || { echo "libtamrik.so not installed"; exit 1; }

# A build with sanitizers gives the host program the same instrumentation.
sanitize=$(sed -n 's/^TAMRIK_SANITIZE:STRING=//p' "$build_dir/CMakeCache.txt")
flags=""
[ -z "$sanitize" ] || flags="-fsanitize=$sanitize"

# Demonstration mode answers without a gateway, so the host programs need no link.
profile=$work/profile
mkdir -p "$profile"
cp "$prefix/share/tamrik/kaVdmo.ini" "$profile/"
printf '[Init]\nVersion=1\nLogfile=0\nComPort=1\nBaudrate=9600\nReadInterval=200\nReadTotalMultiplier=0\nReadTotalConstant=500\nReadTotalConstantFW=3000\n' \
  > "$profile/kaVcnf.ini"
expected="driver 1.0 B2.1.38, gateway $(sed -n 's/^GWIdString=//p' "$profile/kaVdmo.ini")"

# 1. CMake package.
cmake -S "$host_dir" -B "$work/host-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/host-cmake" >/dev/null
out=$("$work/host-cmake/host" "$profile")
[ "$out" = "$expected" ] || { echo "find_package host printed '$out', expected '$expected'"; exit 1; }

# 2. pkg-config.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build_dir/CMakeCache.txt")
[ "$(pkg-config --modversion tamrik)" = "$version" ] || { echo "pkg-config does not know tamrik $version"; exit 1; }
# shellcheck disable=SC2046
cc $flags -o "$work/host-pc" "$host_dir/host.c" $(pkg-config --cflags --libs tamrik) -Wl,-rpath,"$libdir"
out=$("$work/host-pc" "$profile")
[ "$out" = "$expected" ] || { echo "pkg-config host printed '$out', expected '$expected'"; exit 1; }

# 3. The installed tool finds its library and the installed demonstration station.
out=$("$prefix/bin/tamrik" --demo --json info)
echo "$out" | grep -q '"driver_version": "1.0 B2.1.38"' || { echo "installed tool: $out"; exit 1; }
"$prefix/bin/tamrik-sim" --help >/dev/null
echo "package: find_package, pkg-config and the installed tools work"
