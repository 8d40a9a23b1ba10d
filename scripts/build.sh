#!/usr/bin/env bash
# Configures and builds into ${BUILD_DIR:-build}; extra arguments go to cmake's configure step.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir="${BUILD_DIR:-build}"
cmake -S . -B "$build_dir" -G Ninja "$@" >/dev/null
cmake --build "$build_dir" -j "$(nproc)"
