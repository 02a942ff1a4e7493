#!/usr/bin/env bash
# What CI runs, in order:
#   1. the cases labelled "threads" under ThreadSanitizer (build-tsan/);
#   2. the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer
#      with clang (build-asan/), the fuzzers' seed corpora among it;
#   3. each fuzzer of that build for FUZZ_SECONDS (default 30);
#   4. the whole suite of the normal build with warnings as errors (build/).
# TARN_SANITIZE=0 leaves out 2 and 3. Any failure, sanitizer report or fuzzer
# finding fails the script. Each phase prints its wall time, and a summary
# closes the run: about 24 minutes on 2 cores from a cold ccache.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-$(nproc)}
timings=()

phase() {
  local name=$1
  shift
  local start=$SECONDS
  echo "==== $name"
  "$@"
  timings+=("$(printf '%-34s %4d s' "$name" $((SECONDS - start)))")
  echo "==== $name: $((SECONDS - start)) s"
}

install_deps() { ./scripts/install-deps.sh; }

tsan_dir=${TSAN_BUILD_DIR:-build-tsan}
tsan_build() {
  cmake -S . -B "$tsan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_WERROR=ON -DTARN_TSAN=ON \
    -DTARN_BENCHMARKS=OFF >/dev/null
  cmake --build "$tsan_dir" -j "$jobs" --target threaded_tests
}
tsan_test() {
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    ctest --test-dir "$tsan_dir" -L threads --output-on-failure -j "$jobs"
}

asan_dir=${ASAN_BUILD_DIR:-build-asan}
asan_build() {
  cmake -S . -B "$asan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
    -DTARN_WERROR=ON -DTARN_FUZZ=ON -DTARN_BENCHMARKS=OFF >/dev/null
  cmake --build "$asan_dir" -j "$jobs"
}
asan_test() {
  ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1" \
    LSAN_OPTIONS="suppressions=$PWD/fuzz/lsan.supp" \
    UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1" \
    ctest --test-dir "$asan_dir" --output-on-failure -j "$jobs"
}
fuzz() { BUILD_DIR="$asan_dir" ./scripts/fuzz.sh "${FUZZ_SECONDS:-30}"; }

build_dir=${BUILD_DIR:-build}
werror_build() { BUILD_DIR="$build_dir" ./scripts/build.sh -DTARN_WERROR=ON -DTARN_BENCHMARKS=OFF; }
werror_test() { ctest --test-dir "$build_dir" --output-on-failure -j "$jobs"; }

total_start=$SECONDS
phase "dependencies" install_deps
phase "tsan: build" tsan_build
phase "tsan: threaded cases" tsan_test
if [ "${TARN_SANITIZE:-1}" = 1 ]; then
  phase "asan+ubsan: build with fuzzers" asan_build
  phase "asan+ubsan: whole suite" asan_test
  phase "fuzzers" fuzz
fi
phase "werror: build" werror_build
phase "werror: whole suite" werror_test

echo "==== timings"
printf '%s\n' "${timings[@]}"
printf '%-34s %4d s\n' "total" $((SECONDS - total_start))
