#!/usr/bin/env bash
# Installs the Debian packages the peer benchmark (scripts/bench-peers.sh)
# needs beyond those of scripts/install-deps.sh: the peers' libraries and
# command-line compressors, GNU time for the compressors' peak memory, and
# gnuplot for the chart.
set -euo pipefail
exec "$(dirname "$0")/install-deps.sh" \
  librocksdb-dev `# RocksDB, with its zstd and LZ4 block compression` \
  libsqlite3-dev \
  xz-utils zstd `# the compressed JSON lines contenders` \
  time `# /usr/bin/time: CPU and peak memory of a command` \
  gnuplot-nox `# the chart (its pngcairo terminal)`
