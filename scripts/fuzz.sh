#!/usr/bin/env bash
# Runs the libFuzzer targets of the AddressSanitizer + UBSan build for a
# bounded time each, from their seed corpora (fuzz/corpus/<name>/) and from
# what earlier runs of this build found. A crash, leak, timeout or sanitizer
# report fails the script; the input is kept under <build>/fuzz-artifacts/.
#
#   scripts/fuzz.sh                # 45 s per fuzzer (CI)
#   scripts/fuzz.sh 900            # 15 min per fuzzer, by hand
#   scripts/fuzz.sh 300 store_fuzz # one fuzzer
#
# BUILD_DIR (default build-asan) is configured and built when its fuzzers
# are missing. A found input replays with: <build>/bin/<name> <file>.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-45}
shift || true
fuzzers=("$@")
if [ ${#fuzzers[@]} -eq 0 ]; then
  fuzzers=(index_fuzz final_fuzz store_fuzz osquery_fuzz shipper_line_fuzz dump_json_fuzz
    event_xml_fuzz)
fi
build_dir=${BUILD_DIR:-build-asan}

if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
    -DTARN_FUZZ=ON -DTARN_BENCHMARKS=OFF >/dev/null
fi
cmake --build "$build_dir" -j "${JOBS:-$(nproc)}" --target "${fuzzers[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/fuzz/lsan.supp}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

artifacts="$build_dir/fuzz-artifacts"
mkdir -p "$artifacts"
failed=()
for name in "${fuzzers[@]}"; do
  # New inputs go to the first directory: the build's own, never the seeds.
  corpus="$build_dir/fuzz-corpus/$name"
  mkdir -p "$corpus"
  log="$artifacts/$name.log"
  dict=fuzz/store_files.dict
  [ "$name" = osquery_fuzz ] && dict=fuzz/osquery.dict
  case "$name" in shipper_line_fuzz | dump_json_fuzz | event_xml_fuzz) dict=fuzz/windows.dict ;; esac
  echo "fuzzing $name for ${seconds}s"
  if "$build_dir/bin/$name" "$corpus" "fuzz/corpus/$name" -dict="$dict" \
      -max_total_time="$seconds" -max_len=8192 -timeout=30 -rss_limit_mb=4096 \
      -print_final_stats=1 -artifact_prefix="$artifacts/$name-" >"$log" 2>&1; then
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added)' "$log" |
      sed "s/^/  /"
  else
    echo "  $name FAILED: see $log"
    grep -E 'ERROR|check failed|runtime error|SUMMARY' "$log" | head -5 | sed "s/^/  /"
    ls "$artifacts" | grep -E "^$name-(crash|leak|timeout|oom)" | sed "s|^|  $artifacts/|" || true
    failed+=("$name")
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzzers with findings: ${failed[*]}"
  exit 1
fi
