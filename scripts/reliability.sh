#!/usr/bin/env bash
# The reliability checks that CI runs after the two test passes, each bounded in time:
#   1. the soak (CTest label "soak") from ${BUILD_DIR:-build}: 100,000 faulted exchanges
#      (at most 150 s) and 10,000 open and close cycles of each link kind
#   2. a subset of the suite under valgrind memcheck (scripts/valgrind.sh --subset)
#   3. the concurrency tests built with ThreadSanitizer (build-tsan)
#   4. every fuzz target for FUZZ_SECONDS (default 25) under ASan and UBSan (scripts/fuzz.sh)
#   5. clang-tidy and cppcheck (scripts/static-analysis.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir="${BUILD_DIR:-build}"
jobs="$(nproc)"
scripts/setup.sh

echo "--- soak"
soak_log="$build_dir/soak.log"
if ! ctest --test-dir "$build_dir" -L soak --output-on-failure -V >"$soak_log" 2>&1; then
  tail -80 "$soak_log"
  exit 1
fi
# The outcome counts and descriptor and heap figures the soak prints.
grep -E "^[0-9]+: (Tcp|Pty|Udp|  faults|  outcomes|total)" "$soak_log" | sed 's/^[0-9]*: //'

echo "--- valgrind"
BUILD_DIR="$build_dir" scripts/valgrind.sh --subset

echo "--- thread sanitizer"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAMRIK_SANITIZE=thread \
  -DTAMRIK_BUILD_BENCH=OFF >/dev/null
cmake --build build-tsan -j "$jobs" --target tamrik_reliability_tests
TSAN_OPTIONS="halt_on_error=1" build-tsan/tamrik_reliability_tests --gtest_filter='Concurrency.*' --gtest_brief=1

echo "--- fuzzing"
JOBS="$jobs" scripts/fuzz.sh

echo "--- static analysis"
JOBS="$jobs" scripts/static-analysis.sh
