#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh "$@"
# The soak (label "soak") runs on its own: scripts/reliability.sh, or ctest -L soak.
ctest --test-dir "${BUILD_DIR:-build}" --output-on-failure -j "$(nproc)" -LE soak
# The Python package against the library and the simulator just built. pytest exits with 5
# when it collected no test, which fails the run like any other failure.
build_dir="${BUILD_DIR:-build}"
python_env=(TAMRIK_LIBRARY="$PWD/$build_dir/libtamrik.so" TAMRIK_SIM="$PWD/$build_dir/tamrik-sim"
            TAMRIK_BUILD_DIR="$PWD/$build_dir" PYTHONDONTWRITEBYTECODE=1)
# A sanitizer build's library needs its runtime loaded before the interpreter starts.
sanitize=$(sed -n 's/^TAMRIK_SANITIZE:STRING=//p' "$build_dir/CMakeCache.txt")
if [ -n "$sanitize" ]; then
  preload=""
  case $sanitize in *address*) preload+=" $(c++ -print-file-name=libasan.so)" ;; esac
  case $sanitize in *undefined*) preload+=" $(c++ -print-file-name=libubsan.so)" ;; esac
  python_env+=(LD_PRELOAD="${preload# }" ASAN_OPTIONS=detect_leaks=0)
fi
env "${python_env[@]}" /usr/bin/python3 -m pytest -p no:cacheprovider -q python/tests
