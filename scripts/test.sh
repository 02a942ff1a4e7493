#!/usr/bin/env bash
# Builds with warnings as errors and runs the whole test suite through CTest.
# The concurrency tests also run in a ThreadSanitizer build first.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-$(nproc)}

./scripts/install-deps.sh

# ThreadSanitizer: only the suites with threads in them, to keep CI short.
tsan_dir=${TSAN_BUILD_DIR:-build-tsan}
cmake -S . -B "$tsan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_WERROR=ON -DTARN_TSAN=ON \
  -DTARN_BENCHMARKS=OFF >/dev/null
cmake --build "$tsan_dir" -j "$jobs" --target manager_tests keel_tests osquery_tests
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
"$tsan_dir/bin/keel_tests" --gtest_brief=1 \
  --gtest_filter='ThreadTest*:EventTest*:MutexTest*:FaultTest.*Concurrent*:RedBlackTreeTest.LockedTree*'
"$tsan_dir/bin/manager_tests" --gtest_brief=1 \
  --gtest_filter='*Concurrent*:StorageTelemetry*:StorageManager*:CrashRecovery*:ReaderConcurrency*'
"$tsan_dir/bin/osquery_tests" --gtest_brief=1 --gtest_filter='QueryConcurrency*'
unset TSAN_OPTIONS

BUILD_DIR=${BUILD_DIR:-build} ./scripts/build.sh -DTARN_WERROR=ON
cd "${BUILD_DIR:-build}"
ctest --output-on-failure -j "$jobs"
