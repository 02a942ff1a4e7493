#!/usr/bin/env bash
# Runs reader_bench and then times the xz tool decoding the very payloads of
# the store the benchmark built (all blocks, back to back), as the limit a
# full walk could reach. Prints the best of RUNS runs in MiB/s of decoded
# output per second of wall time, for one decoder thread and for two.
#   BENCH=build/bin/reader_bench RUNS=3 TARN_READER_BENCH_MIB=100 scripts/bench-reader-xz.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bench=${BENCH:-build/bin/reader_bench}
runs=${RUNS:-3}

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
TARN_BENCH_DUMP="$tmp/payloads.xz" "$bench" "$@"
raw=$(cat "$tmp/payloads.xz.raw")

now() { date +%s.%N; }

best_of() {
  local best="" start end
  for _ in $(seq "$runs"); do
    start=$(now)
    "$@" >/dev/null
    end=$(now)
    best=$(awk -v s="$start" -v e="$end" -v b="$best" \
      'BEGIN { t = e - s; print (b == "" || t < b) ? t : b }')
  done
  echo "$best"
}

printf '\npayloads: %d bytes stored, %d bytes decoded\n' "$(stat -c %s "$tmp/payloads.xz")" "$raw"
for threads in 1 2; do
  seconds=$(best_of xz -d -T"$threads" -c "$tmp/payloads.xz")
  awk -v n="xz -d -T$threads" -v t="$seconds" -v raw="$raw" \
    'BEGIN { printf "%-16s %8.2f MiB/s decoded  (%.3f s)\n", n, raw / 1048576 / t, t }'
done
