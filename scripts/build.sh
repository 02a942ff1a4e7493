#!/usr/bin/env bash
# Installs what is missing, then configures and builds everything in build/.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} "$@" >/dev/null
cmake --build "$build_dir" -j "${JOBS:-$(nproc)}"
