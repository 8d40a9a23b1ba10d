#!/usr/bin/env bash
# Builds the Debian packages (scripts/build-packages.sh, into build-deb/), checks them with
# lintian, installs them with apt-get, uses what they installed the way a user would (the tool,
# the README's C example built with pkg-config against the simulator on loopback, the Python
# package in /usr/bin/python3), and removes (purges) them again. Needs root (or sudo); CI runs it on a
# machine of its own.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir="${DEB_BUILD_DIR:-build-deb}"
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
packages=(libtamrik2 libtamrik-dev tamrik-tools python3-tamrik)
for p in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    echo "$p is installed already; this test installs and removes it itself"; exit 1
  fi
done

scripts/build-packages.sh
debs=("$(realpath "$build_dir")"/*.deb)
[ ${#debs[@]} -eq ${#packages[@]} ] || { echo "expected ${#packages[@]} packages, got: ${debs[*]}"; exit 1; }

# Errors fail; warnings are shown (each override in cmake/debian/ says why it is one).
lintian --fail-on error --info "${debs[@]}"

work=$(mktemp -d "${TMPDIR:-/tmp}/tamrik-packages-XXXXXX")
sim_pid=""
cleanup() {
  [ -z "$sim_pid" ] || kill "$sim_pid" 2>/dev/null || true
  rm -rf "$work"
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get purge -y "${packages[@]}" >/dev/null 2>&1 || true
}
trap cleanup EXIT
DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y "${debs[@]}"

# The tool from PATH, with its own simulated gateway.
out=$(tamrik --sim info)
echo "$out"
grep -q '^driver version' <<<"$out" || { echo "tamrik --sim info printed no driver version"; exit 1; }
man -w tamrik >/dev/null && man -w tamrik-sim >/dev/null
[ -f /usr/share/bash-completion/completions/tamrik ] && [ -f /usr/share/tamrik/kaVdmo.ini ]

# The README's C example, exactly as it stands there, against the installed header and library.
sed -n '/^## The C interface/,/^```$/p' README.md | sed -n '/^```c$/,/^```$/p' | sed '1d;$d' >"$work/example.c"
grep -q 'int main' "$work/example.c" || { echo "no C example found in README.md"; exit 1; }
# shellcheck disable=SC2046
cc -Wall -Werror -o "$work/example" "$work/example.c" $(pkg-config --cflags --libs tamrik)
timeout 60 tamrik-sim --tcp 0 >"$work/sim.out" 2>&1 &
sim_pid=$!
port=""
for _ in $(seq 50); do
  port=$(sed -n 's/^tcp 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/sim.out")
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "$port" ] || { cat "$work/sim.out"; echo "tamrik-sim did not say its port"; exit 1; }
out=$(timeout 30 "$work/example" "$port")
echo "$out"
grep -q "^tamrik $(pkg-config --modversion tamrik)\$" <<<"$out" || { echo "example: wrong library release"; exit 1; }
grep -q ' input bytes$' <<<"$out" || { echo "example: no inputs from the simulator"; exit 1; }
kill "$sim_pid"; wait "$sim_pid" 2>/dev/null || true; sim_pid=""

# The Python package in Debian's python3, with nothing from the checkout on its path.
(cd "$work" && env -u PYTHONPATH -u TAMRIK_LIBRARY /usr/bin/python3 -c \
  'import tamrik; print("python3-tamrik", tamrik.__version__, tamrik.library_path())')

# Removal (with purge, so that dpkg forgets them too) leaves nothing behind.
DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get purge -y "${packages[@]}"
for p in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -qv '^unknown ok not-installed$'; then
    echo "$p is still known to dpkg: $(dpkg-query -W -f='${Status}' "$p")"; exit 1
  fi
done
left=$(ls -d /usr/bin/tamrik /usr/bin/tamrik-sim /usr/include/tamrik.h /usr/share/tamrik \
          /usr/lib/python3/dist-packages/tamrik /usr/lib/*/libtamrik.so* 2>/dev/null || true)
[ -z "$left" ] || { echo "left after removal: $left"; exit 1; }
echo "packages: lintian without errors, installed, used and removed"
