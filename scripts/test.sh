#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh "$@"
# The soak (label "soak") runs on its own: scripts/reliability.sh, or ctest -L soak.
ctest --test-dir "${BUILD_DIR:-build}" --output-on-failure -j "$(nproc)" -LE soak
