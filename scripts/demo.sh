#!/usr/bin/env bash
# Sets up, builds and runs the main job against the bundled simulator, no hardware needed:
# the tamrik tool's tour of a simulated gateway (identity, modules, live inputs, an output
# write read back, an image download with its progress).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh
"${BUILD_DIR:-build}"/tamrik --sim demo
