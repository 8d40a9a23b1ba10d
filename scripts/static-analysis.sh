#!/usr/bin/env bash
# Static analysis of the project's own code with the checked-in configuration: cppcheck
# (.cppcheck-suppressions) and clang-tidy (.clang-tidy). Any finding fails the run; a finding
# that is not a defect is suppressed where it occurs, with the reason beside it.
#
# clang-tidy covers the driver (comserver/, Linux platform layer), the simulator with its
# program, the tool (cli/), the documentation generators (tools/) and the fuzz targets.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir="${BUILD_DIR:-build-tidy}"

cppcheck --error-exitcode=1 --enable=warning,performance,portability --std=c++20 --language=c++ \
  --inline-suppr --quiet -j "${JOBS:-2}" --suppressions-list=.cppcheck-suppressions \
  -I comserver -I comserver/capi -I sim -I tools/progdocs \
  comserver/*.cpp comserver/capi comserver/download comserver/link comserver/protocol comserver/platform/posix sim cli tools fuzz
echo "cppcheck: no findings"

CC=clang CXX=clang++ cmake -S . -B "$build_dir" -G Ninja -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  -DTAMRIK_BUILD_BENCH=OFF -DTAMRIK_FUZZ=ON >/dev/null
files=(comserver/*.cpp comserver/capi/*.cpp comserver/download/*.cpp comserver/link/*.cpp comserver/protocol/*.cpp
       comserver/platform/posix/*.cpp fuzz/*.cpp)
files+=(sim/*.cpp cli/*.cpp tools/*/*.cpp)
printf '%s\n' "${files[@]}" | xargs -P "${JOBS:-2}" -n 4 clang-tidy -p "$build_dir" --quiet
echo "clang-tidy: no findings in ${#files[@]} files"
