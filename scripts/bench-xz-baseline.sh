#!/usr/bin/env bash
# Times the xz tool on the very bytes lzma_bench compresses (a 10 MiB block of
# event records), as a reference for the library's numbers. Prints the best
# of RUNS runs: MiB/s of input per second of wall time, and output/input.
#   BENCH=build/bin/lzma_bench RUNS=3 scripts/bench-xz-baseline.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bench=${BENCH:-build/bin/lzma_bench}
runs=${RUNS:-3}

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
TARN_BENCH_DUMP="$tmp/sample" "$bench"
size=$(stat -c %s "$tmp/sample")

now() { date +%s.%N; }

# best_of <output file> <command...>: fastest wall time in seconds.
best_of() {
  local out=$1 best="" start end
  shift
  for _ in $(seq "$runs"); do
    start=$(now)
    "$@" <"$tmp/sample" >"$out"
    end=$(now)
    best=$(awk -v s="$start" -v e="$end" -v b="$best" \
      'BEGIN { t = e - s; print (b == "" || t < b) ? t : b }')
  done
  echo "$best"
}

report() {
  local name=$1 seconds=$2 bytes=$3
  awk -v n="$name" -v t="$seconds" -v in_="$size" -v out="$bytes" \
    'BEGIN { printf "%-40s %8.2f MiB/s  ratio %.4f  (%.3f s)\n",
                    n, in_ / 1048576 / t, out / in_, t }'
}

printf 'sample: %d bytes\n' "$size"
# xz's own block size for -T2 is three dictionaries (24 MiB at -6), so a
# 10 MiB block stays one xz block and one thread; the last line cuts it into
# 2 MiB blocks the way Keel::Lzma::Compress does.
for variant in "-6 -T1" "-6 -T2" "-6 -T2 --block-size=2MiB"; do
  # shellcheck disable=SC2086
  seconds=$(best_of "$tmp/out.xz" xz $variant -c)
  report "xz $variant" "$seconds" "$(stat -c %s "$tmp/out.xz")"
  seconds=$(best_of /dev/null sh -c "xz -d -c '$tmp/out.xz'")
  report "  xz -d of that" "$seconds" "$(stat -c %s "$tmp/out.xz")"
done
