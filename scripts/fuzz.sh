#!/usr/bin/env bash
# Builds the fuzz targets with clang, AddressSanitizer and UndefinedBehaviorSanitizer into
# ${BUILD_DIR:-build-fuzz} and runs each for FUZZ_SECONDS seconds (default 25), starting from
# the seed corpus in fuzz/corpus/<target>. New inputs go to a scratch corpus, not the repo.
#
#   scripts/fuzz.sh                               # every target, 25 s each
#   FUZZ_SECONDS=3600 scripts/fuzz.sh fuzz_profile  # one target for an hour
#
# A crash leaves its input as crash-* in ${BUILD_DIR}/fuzz-out/<target>/ and fails the run;
# replay it with ${BUILD_DIR}/<target> <file>.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir="${BUILD_DIR:-build-fuzz}"
seconds="${FUZZ_SECONDS:-25}"
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=()
  for source in fuzz/fuzz_*.cpp; do targets+=("$(basename "$source" .cpp)"); done
fi

CC=clang CXX=clang++ cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTAMRIK_FUZZ=ON -DTAMRIK_SANITIZE=address,undefined -DTAMRIK_BUILD_TESTS=OFF -DTAMRIK_BUILD_BENCH=OFF >/dev/null
cmake --build "$build_dir" -j "${JOBS:-2}" --target "${targets[@]}"

# The profile writes sync every file; a memory file system keeps that cheap.
[ -d /dev/shm ] && export TMPDIR=/dev/shm
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
status=0
for target in "${targets[@]}"; do
  out="$build_dir/fuzz-out/$target"
  mkdir -p "$out/corpus"
  log="$out/log.txt"
  if (cd "$out" && "../../$target" -max_total_time="$seconds" -max_len=70000 -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 corpus "../../../fuzz/corpus/$target") >"$log" 2>&1; then
    result="ok"
  else
    result="FAILED"
    status=1
    tail -40 "$log"
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
  echo "$target: $runs executions in ${seconds} s, $result"
done
exit $status
