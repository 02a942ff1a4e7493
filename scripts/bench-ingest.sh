#!/usr/bin/env bash
# Runs every phase of bench/ingest_bench (the store's writer: AddEvent cost,
# sustained ingest on both LZMA paths, peak memory, a burst), then times
# `xz -6 -T1` on the very raw events the sustained phase fed the store and
# appends that as the last row of the table. About two and a half minutes.
#   BENCH=build/bin/ingest_bench MIB=64 [DIR=/path/for/stores] scripts/bench-ingest.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bench=${BENCH:-build/bin/ingest_bench}
mib=${MIB:-64}

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
"$bench" --mib "$mib" ${DIR:+--dir "$DIR"} | tee "$tmp/results"

TARN_BENCH_DUMP="$tmp/raw" "$bench" --mib "$mib"
start=$(date +%s.%N)
xz -6 -T1 -c "$tmp/raw" >"$tmp/raw.xz"
end=$(date +%s.%N)

value() { sed -n "s/^$1=//p" "$tmp/results"; }
awk -v s="$start" -v e="$end" -v in_="$(stat -c %s "$tmp/raw")" \
    -v out="$(stat -c %s "$tmp/raw.xz")" -v st="$(value st.mib_s)" -v mt="$(value mt.mib_s)" \
  'BEGIN { t = e - s; x = in_ / 1048576 / t
           printf "| xz -6 -T1, same raw events | %.2f MiB/s | %.1f s, ratio %.3f; the store " \
                  "reaches %.0f%% of it single-threaded, %.0f%% multi-threaded |\n",
                  x, t, out / in_, 100 * st / x, 100 * mt / x }'
