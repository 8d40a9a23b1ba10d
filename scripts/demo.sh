#!/usr/bin/env bash
# Sets up, builds and runs the main job against the bundled simulator: no hardware needed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh
"${BUILD_DIR:-build}"/tamrik-example
