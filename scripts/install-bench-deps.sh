#!/usr/bin/env bash
# Installs the Debian packages the peer benchmark (scripts/bench-peers.sh)
# needs beyond those of scripts/install-deps.sh: the peers' libraries and
# command-line compressors, GNU time for the compressors' peak memory, and
# gnuplot for the chart. Idempotent and non-interactive: asks apt only for
# what is missing, and runs `apt-get update` only when something is.
set -euo pipefail

packages=(
  librocksdb-dev  # RocksDB, with its zstd and LZ4 block compression
  libsqlite3-dev
  xz-utils zstd   # the compressed JSON lines contenders
  time            # /usr/bin/time: CPU and peak memory of a command
  gnuplot-nox     # the chart (its pngcairo terminal)
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
