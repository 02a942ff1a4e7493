#!/usr/bin/env bash
# Import speed of Windows logs by form: the regression cases of the
# detection rules as native .evtx files and as the dump tools' JSON of the
# same events, each copied COPIES times (default 20) into folders of their
# own, and the public sample as its .zip and unpacked. Each import runs
# twice into a fresh store; /usr/bin/time gives wall, CPU and peak memory.
#
#   scripts/bench-windows-import.sh [COPIES]
#
# TARN (default build/bin/tarn) is the tool to time; /usr/bin/time comes
# from scripts/install-bench-deps.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
copies=${1:-20}
tarn=${TARN:-build/bin/tarn}
shared=../shared
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

n=0
while IFS= read -r evtx; do
  n=$((n + 1))
  for c in $(seq 1 "$copies"); do
    mkdir -p "$work/evtx/$c" "$work/json/$c"
    cp "$evtx" "$work/evtx/$c/$n.evtx"
    cp "${evtx%.evtx}.json" "$work/json/$c/$n.json"
  done
done < <(find "$shared/sigma/regression_data" -name '*.evtx' | sort)
unzip -p "$shared/data/procdump_lsass_memory_dump.zip" >"$work/sample.json"

run() {
  local label=$1
  shift
  for _ in 1 2; do
    rm -rf "$work/store"
    /usr/bin/time -f "$label: %e s wall, %U s user, %S s system, %M KiB peak" \
      "$tarn" ingest --quiet --store "$work/store" --from "$@" 2>&1 >"$work/out" |
      grep -v '^tarn:' || true
    grep '^windows events:' "$work/out"
  done
}
run ".evtx files" "$work/evtx"
run "dump JSON files" "$work/json"
run "sample, .zip" "$shared/data/procdump_lsass_memory_dump.zip"
run "sample, unpacked" "$work/sample.json"
