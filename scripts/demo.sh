#!/usr/bin/env bash
# Builds the tarn tool and the storage module it loads, then runs the demo:
# a few days of a synthetic endpoint's events into a fresh store in a
# temporary directory. Arguments go to `tarn demo` (try --help).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} >/dev/null
cmake --build "$build_dir" -j "${JOBS:-$(nproc)}" --target tarn >/dev/null
exec "$build_dir/bin/tarn" demo "$@"
