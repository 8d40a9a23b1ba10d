#!/usr/bin/env bash
# Runs test programs of ${BUILD_DIR:-build} under valgrind memcheck; any memory error or leak
# fails the run.
#
#   scripts/valgrind.sh            # the whole suite (slow: every program, every test)
#   scripts/valgrind.sh --subset   # the part CI runs: codec, C interface, stale answers,
#                                  # profile files, demonstration methods
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir="${BUILD_DIR:-build}"
run() {
  local program="$1"
  shift
  echo "valgrind: $program $*"
  valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect \
    --track-fds=no "$build_dir/$program" --gtest_brief=1 "$@"
}
if [ "${1:-}" = "--subset" ]; then
  run tamrik_codec_tests
  run tamrik_platform_tests --gtest_filter='Profile*'
  run tamrik_reliability_tests --gtest_filter='CInterfaceInput.*:CInterfaceConfig.*:Links/HostileGateway.*:Links/StaleAnswers.Frames*:ProfileNames.*'
  run tamrik_core_tests --gtest_filter='DemoMethods*:*Demo*:CInterface*'
else
  for program in tamrik_codec_tests tamrik_platform_tests tamrik_sim_tests tamrik_core_tests tamrik_reliability_tests; do
    run "$program"
  done
fi
echo "valgrind: clean"
