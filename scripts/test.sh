#!/usr/bin/env bash
# Builds with warnings as errors and runs the whole test suite through CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build} ./scripts/build.sh -DTARN_WERROR=ON
cd "${BUILD_DIR:-build}"
ctest --output-on-failure -j "${JOBS:-$(nproc)}"
