#!/usr/bin/env bash
# How `tarn sql` scans scale: each statement run with --threads 1 (every
# scan asked for in turn as SQLite reaches it, the way the tool scanned
# before) and with --threads N (scans run over time slices of the store on N
# threads, every table of a statement asked for slice by slice), on two
# stores in blocks of 256 KiB: a synthetic week, and the real telemetry
# sample. Answers must be byte for byte the same, or the run fails.
#
#   scripts/bench-scans.sh
#
# Settings: THREADS (2), RUNS (5: the median of as many fresh processes),
# EVENTS (300,000 synthetic events), SAMPLE (../shared/data/
# procdump_lsass_memory_dump.zip), BUILD_DIR (build-bench; NO_BUILD=1 uses it
# as it is), WORK (stores and answers; a new temporary directory by
# default), OUT (BUILD_DIR/scan-results: times.tsv and table.md).
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build-bench}
threads=${THREADS:-2}
runs=${RUNS:-5}
events=${EVENTS:-300000}
sample=${SAMPLE:-../shared/data/procdump_lsass_memory_dump.zip}
lock=${BUILD_LOCK:-/tmp/tarn-build.lock}
work=${WORK:-$(mktemp -d /tmp/tarn-scans-XXXXXX)}
[ -z "${WORK:-}" ] && trap 'rm -rf "$work"' EXIT
out=${OUT:-$build_dir/scan-results}
mkdir -p "$out"

if [ "${NO_BUILD:-0}" != 1 ]; then
  ./scripts/install-deps.sh
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF >/dev/null
  flock "$lock" cmake --build "$build_dir" -j "${JOBS:-2}" --target tarn tarn_storage >/dev/null
fi
tarn=$PWD/$build_dir/bin/tarn

echo "stores: a synthetic week of $events events, and the sample" >&2
"$tarn" -q ingest --store "$work/week" --synthetic --days 7 --events "$events" \
  --end 2026-11-21 --block-size 256K >/dev/null
unzip -p "$sample" >"$work/sample.json"
"$tarn" -q ingest --store "$work/sample" --from "$work/sample.json" --sort --block-size 256K \
  >/dev/null

# Every table in one statement: a UNION ALL of 135 scans.
all=$("$tarn" sql --store "$work/week" -f csv \
  "SELECT name FROM pragma_module_list WHERE name LIKE 'edr_%' ORDER BY name" | tail -n +2 |
  sed 's/.*/SELECT date_time FROM &/' | paste -sd'|' | sed 's/|/ UNION ALL /g')
five="SELECT date_time FROM edr_process_create UNION ALL SELECT date_time FROM edr_file_write \
UNION ALL SELECT date_time FROM edr_network_generic_connect UNION ALL SELECT date_time FROM \
edr_registry_value_query UNION ALL SELECT date_time FROM edr_process_load_module"

# name<TAB>sql: the statements, each over the whole store.
statements() {
  printf 'one table, count\tSELECT count(*) FROM edr_process_create\n'
  printf 'one table, every column\tSELECT * FROM edr_process_create\n'
  printf '2 tables\tSELECT count(*) FROM (SELECT date_time FROM edr_process_create UNION ALL SELECT date_time FROM edr_network_generic_connect)\n'
  printf '5 tables\tSELECT count(*) FROM (%s)\n' "$five"
  printf '135 tables\tSELECT count(*) FROM (%s)\n' "$all"
  printf 'join on puid\tSELECT count(*) FROM edr_process_create p JOIN edr_network_generic_connect n ON n.puid = p.puid\n'
}

# The median wall time in ms of RUNS runs; the answer to OUT_FILE.
time_ms() {
  local store=$1 n=$2 sql=$3 answer=$4 times=()
  for _ in $(seq "$runs"); do
    local start end
    start=$(date +%s%N)
    "$tarn" sql --store "$store" --threads "$n" -f csv "$sql" >"$answer"
    end=$(date +%s%N)
    times+=($(((end - start) / 1000000)))
  done
  printf '%s\n' "${times[@]}" | sort -n | sed -n "$(((runs + 1) / 2))p"
}

printf 'store\tstatement\tms_1_thread\tms_%s_threads\n' "$threads" >"$out/times.tsv"
for store in week sample; do
  while IFS=$'\t' read -r name sql; do
    echo "$store: $name" >&2
    one=$(time_ms "$work/$store" 1 "$sql" "$work/one.csv")
    many=$(time_ms "$work/$store" "$threads" "$sql" "$work/many.csv")
    if ! cmp -s "$work/one.csv" "$work/many.csv"; then
      echo "bench-scans: $store, $name: the answers differ" >&2
      exit 1
    fi
    printf '%s\t%s\t%s\t%s\n' "$store" "$name" "$one" "$many" >>"$out/times.tsv"
  done < <(statements)
done

# The table: speed-up of N threads over one, and each statement's cost
# against the one-table count at N threads.
awk -F'\t' -v n="$threads" '
  NR == 1 { next }
  { key = $1; if ($2 == "one table, count") base[key] = $4
    rows[NR] = $0 }
  END {
    printf "| store | statement | 1 thread (ms) | %d threads (ms) | speed-up | cost against one table |\n", n
    print "|---|---|---:|---:|---:|---:|"
    for (i = 2; i <= NR; i++) {
      split(rows[i], f, "\t")
      printf "| %s | %s | %d | %d | %.2f | %.2f |\n", f[1], f[2], f[3], f[4], f[3] / f[4], f[4] / base[f[1]]
    }
  }' "$out/times.tsv" >"$out/table.md"
cat "$out/table.md"
