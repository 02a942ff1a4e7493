// Compression of one 10 MiB event block at preset 6, one encoder thread
// against two. TARN_BENCH_DUMP=path writes the sample instead of running, so
// scripts/bench-xz-baseline.sh can time the xz tool on the same bytes.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Keel/Lzma.h"
#include "samples/EventLikeRecords.h"

namespace {

constexpr size_t kBlockBytes = 10 << 20;

const std::vector<uint8_t>& Sample() {
  static const std::vector<uint8_t> sample = Tarn::Samples::EventLikeBytes(kBlockBytes);
  return sample;
}

void BM_Compress(benchmark::State& state) {
  const auto& raw = Sample();
  Keel::Lzma::Options options{6, static_cast<uint32_t>(state.range(0))};
  Keel::Collections::Buffer out;
  for (auto _ : state) {
    if (!Keel::Lzma::Compress(raw.data(), raw.size(), out, options)) {
      state.SkipWithError("compress failed");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * raw.size()));
  state.counters["ratio"] = static_cast<double>(out.Size()) / static_cast<double>(raw.size());
}

// Decoding runs on one thread either way; the argument picks which encoder
// made the stream (one xz block, or five 2 MiB blocks).
void BM_Uncompress(benchmark::State& state) {
  const auto& raw = Sample();
  Keel::Collections::Buffer compressed, out;
  Keel::Lzma::Options options{6, static_cast<uint32_t>(state.range(0))};
  if (!Keel::Lzma::Compress(raw.data(), raw.size(), compressed, options)) {
    state.SkipWithError("compress failed");
    return;
  }
  for (auto _ : state) {
    if (!Keel::Lzma::Uncompress(compressed.Data(), compressed.Size(), out, raw.size())) {
      state.SkipWithError("uncompress failed");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * raw.size()));
  state.counters["ratio"] =
      static_cast<double>(compressed.Size()) / static_cast<double>(raw.size());
}

// Wall time, not the main thread's CPU time, is what the writer thread waits.
BENCHMARK(BM_Compress)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Uncompress)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

bool DumpSample(const char* path) {
  FILE* file = std::fopen(path, "wb");
  if (file == nullptr) return false;
  const auto& raw = Sample();
  bool ok = std::fwrite(raw.data(), 1, raw.size(), file) == raw.size();
  return std::fclose(file) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (const char* path = std::getenv("TARN_BENCH_DUMP")) {
    if (DumpSample(path)) return 0;
    std::perror(path);
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
