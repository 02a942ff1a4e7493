#!/usr/bin/env bash
# What the storage module costs the agent that hosts it (bench/overhead):
# the module fed the synthetic endpoint's mix at 100, 1,000 and 10,000
# events a second and left idle, a minute each (about four and a half
# minutes with making the events), each phase in a fresh process and a fresh
# store with the default limits. Prints each phase's key=value lines and
# then the table of docs/benchmarks.md.
#   scripts/bench-overhead.sh
#   PHASE_SECONDS=10 scripts/bench-overhead.sh     a shorter trial
# BUILD_DIR (build-bench; NO_BUILD=1 uses it as it is).
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build-bench}
if [ "${NO_BUILD:-0}" != 1 ]; then
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_BENCHMARKS=ON \
    -DBUILD_TESTING=OFF >/dev/null
  flock "${BUILD_LOCK:-/tmp/tarn-build.lock}" \
    cmake --build "$build_dir" -j "${JOBS:-2}" --target overhead_bench tarn_storage >/dev/null
fi
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
TARN_OVERHEAD_SECONDS=${PHASE_SECONDS:-60} "$build_dir/bin/overhead_bench"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
