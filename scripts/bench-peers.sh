#!/usr/bin/env bash
# The store against its peers on the same events, in one run: the store fed
# through its module as `tarn ingest` feeds it; RocksDB with zstd and with
# LZ4 blocks; SQLite with a table per event table; the JSON lines `tarn
# export` writes, compressed with xz -6, zstd -19 and zstd -3. For each:
# bytes on disk per event, ingest rate, CPU seconds per million events, peak
# memory, and the time of three questions (one hour of process starts, a
# scan of everything, process starts joined with network connections on
# puid; see bench/peers/Contender.h). Every contender must give the same
# rows and checks, or the run fails.
#
#   scripts/bench-peers.sh                  a synthetic week (EVENTS, 300,000)
#   CORPUS=FILE scripts/bench-peers.sh      the events of FILE instead: what
#       `tarn ingest --from` reads (JSON lines of rows, or Windows event logs),
#       or a .zip holding one such file
#
# Other settings: RUNS (3: each question's time is the median of as many
# fresh processes), CONTENDERS (all), BUILD_DIR (build-bench; NO_BUILD=1 uses
# it as it is), WORK (the corpus and the stores; by default a new temporary
# directory, removed at the end unless KEEP=1), OUT (BUILD_DIR/peers-results:
# the raw key=value files, results.tsv, table.md and the chart), CHART
# (OUT/peers.png), END (2026-11-21, the synthetic week's last day). About four minutes on 2 cores with the defaults, most of it zstd -19
# and xz -6.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build_dir=${BUILD_DIR:-build-bench}
events=${EVENTS:-300000}
runs=${RUNS:-3}
contenders=${CONTENDERS:-tarn rocksdb-zstd rocksdb-lz4 sqlite json-xz6 json-zstd19 json-zstd3}
lock=${BUILD_LOCK:-/tmp/tarn-build.lock}

work=${WORK:-$(mktemp -d /tmp/tarn-peers-XXXXXX)}
mkdir -p "$work"
if [ "${KEEP:-0}" != 1 ] && [ -z "${WORK:-}" ]; then
  trap 'rm -rf "$work"' EXIT
fi
out=${OUT:-$build_dir/peers-results}
mkdir -p "$out"
out=$(cd "$out" && pwd)
chart=${CHART:-$out/peers.png}

build() {
  [ "${NO_BUILD:-0}" = 1 ] && return
  ./scripts/install-bench-deps.sh
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_BENCHMARKS=ON \
    -DBUILD_TESTING=OFF >/dev/null
  flock "$lock" cmake --build "$build_dir" -j "${JOBS:-2}" --target tarn tarn_storage peer_bench \
    >/dev/null
}

tarn=$root/$build_dir/bin/tarn
bench=$root/$build_dir/bin/peer_bench

# value FILE KEY: the value of KEY in a key=value file.
value() { sed -n "s/^$2=//p" "$1"; }

# The corpus as JSON lines of rows, in time order, made by the store's own
# tools: an ingest into a scratch store, then an export.
make_corpus() {
  local source=$work/source
  rm -rf "$source"
  if [ -n "${CORPUS:-}" ]; then
    local input=$CORPUS
    if [ "${CORPUS##*.}" = zip ]; then
      input=$work/corpus-input
      unzip -p "$CORPUS" >"$input"
    fi
    "$tarn" --quiet ingest --store "$source" --from "$input" --sort >"$out/corpus-ingest.txt"
  else
    "$tarn" --quiet ingest --store "$source" --synthetic --days 7 --events "$events" \
      --end "${END:-2026-11-21}" --seed 1 >"$out/corpus-ingest.txt"
  fi
  "$tarn" --quiet export --store "$source" -o "$work/corpus.jsonl" >/dev/null
  rm -rf "$source"
  "$bench" records --json "$work/corpus.jsonl" --out "$work/corpus.rec" >"$out/corpus.txt"
}

ingest_all() {
  local c
  for c in $contenders; do
    echo "ingest: $c" >&2
    rm -rf "$work/store-$c"
    "$bench" ingest --contender "$c" --dir "$work/store-$c" --records "$work/corpus.rec" \
      --json "$work/corpus.jsonl" >"$out/ingest-$c.txt"
  done
}

# Runs of each question go round the contenders, so that a change in the
# machine's load falls on all of them alike.
ask_all() {
  local from to q r c
  from=$(value "$out/corpus.txt" hour_from_ms)
  to=$((from + 3600000))
  for q in hour scan join; do
    for r in $(seq "$runs"); do
      for c in $contenders; do
        echo "ask: $q, run $r, $c" >&2
        "$bench" ask --contender "$c" --dir "$work/store-$c" --question "$q" \
          --from-ms "$from" --to-ms "$to" >"$out/ask-$c-$q-$r.txt"
      done
    done
  done
}

# Every contender must have answered each question with the same rows and
# check as the first one.
check_answers() {
  local q c first this
  for q in hour scan join; do
    first=""
    for c in $contenders; do
      this="$(value "$out/ask-$c-$q-1.txt" rows) $(value "$out/ask-$c-$q-1.txt" check)"
      if [ -z "$first" ]; then
        first=$this
      elif [ "$this" != "$first" ]; then
        echo "bench-peers: $c answers $q with rows and check $this, not $first" >&2
        return 1
      fi
    done
    echo "$q: $first (rows, check) from every contender" >&2
  done
}

# median Q C: the median time of question Q for contender C.
median() {
  local r
  for r in $(seq "$runs"); do value "$out/ask-$2-$1-$r.txt" seconds; done |
    sort -g | awk '{ v[NR] = $1 }
                   END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

summarize() {
  local c f tsv=$out/results.tsv
  local columns=(contender events bytes bytes_per_event ingest_s events_per_s cpu_s_per_M
                 peak_mib base_mib finish_s convert_s hour_s scan_s join_s)
  (IFS=$'\t'; echo "${columns[*]}") >"$tsv"
  for c in $contenders; do
    f=$out/ingest-$c.txt
    awk -v c="$c" -v n="$(value "$f" events)" -v b="$(value "$f" bytes)" \
      -v s="$(value "$f" seconds)" -v cpu="$(value "$f" cpu_seconds)" \
      -v peak="$(value "$f" peak_rss_kib)" -v base="$(value "$f" base_rss_kib)" \
      -v fin="$(value "$f" finish_seconds)" -v conv="$(value "$f" convert_seconds)" \
      -v h="$(median hour "$c")" -v sc="$(median scan "$c")" -v j="$(median join "$c")" \
      'BEGIN {
         # SQLite is timed without turning records into its columns (see the
         # contender); RocksDB with its full compaction in the CPU time only.
         t = s - conv
         printf "%s\t%d\t%d\t%.2f\t%.3f\t%.0f\t%.2f\t%.1f\t%.1f\t%.3f\t%.3f\t%.4f\t%.4f\t%.4f\n",
                c, n, b, b / n, t, n / t, (cpu - conv) * 1e6 / n, peak / 1024, base / 1024,
                fin, conv, h, sc, j
       }' >>"$tsv"
  done
}

# The table of docs/benchmarks.md. The first contender (the store) is the
# reference: "store / this" is the store's bytes per event over this one's
# (below 1: the store is smaller); a question's "x store" is this one's time
# over the store's (above 1: the store is faster).
table() {
  {
    echo -n "| contender | bytes/event | store / this | events/s | CPU s per M events | peak MiB "
    echo "| hour (x store) | scan (x store) | join (x store) |"
    echo "|---|---|---|---|---|---|---|---|---|"
    awk -F '\t' '
      NR == 1 { next }
      NR == 2 { tb = $4; th = $12; ts = $13; tj = $14 }
      { printf "| %s | %.1f | %.2f | %d | %.1f | %.1f ", $1, $4, tb / $4, $6, $7, $8
        printf "| %.1f ms (%.2f) | %.0f ms (%.2f) | %.0f ms (%.2f) |\n",
               1000 * $12, $12 / th, 1000 * $13, $13 / ts, 1000 * $14, $14 / tj }' \
      "$out/results.tsv"
  } >"$out/table.md"
}

build
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)" | tee "$out/load.txt" >&2
make_corpus
ingest_all
ask_all
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)" | tee -a "$out/load.txt" >&2
check_answers
summarize
table
count=$(value "$out/corpus.txt" events | sed ':a;s/\B[0-9]\{3\}\>/,&/;ta')
if [ -n "${CORPUS:-}" ]; then
  corpus_name="$(basename "$CORPUS"), $count events"
else
  corpus_name="a synthetic week, $count events"
fi
TITLE=$corpus_name "$root/scripts/bench-peers-chart.sh" "$out/results.tsv" "$chart"
cat "$out/corpus.txt"
cat "$out/table.md"
echo "results in $out; chart $chart" >&2
