#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the sanitizer builds,
# the fuzzers and the benchmarks need.
# Idempotent and non-interactive: asks apt only for what is missing, and runs
# `apt-get update` only when something is. Arguments name more packages.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ccache xz-utils
  unzip  # the tools tests unpack the sample Windows telemetry
  python3
  liblzma-dev
  libprotobuf-dev protobuf-compiler
  nlohmann-json3-dev
  googletest libgtest-dev libgmock-dev
  libbenchmark-dev
  libsqlite3-dev
  libedit-dev
  libcli11-dev
  # tarn ingest: .evtx files (libevtx's header needs libbfio's, which its
  # package does not pull in), the records' XML, .zip and .gz inputs.
  libevtx-dev libbfio-dev libexpat1-dev libarchive-dev
  librocksdb-dev
  # The sanitizer build and the fuzzers: clang, its sanitizer runtimes (only
  # recommended by clang, which this script does not install) and libFuzzer.
  clang libclang-rt-14-dev libfuzzer-14-dev
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi

echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
