// Compression of one 10 MiB event block at preset 6, one encoder thread
// against two. TARN_BENCH_DUMP=path writes the sample instead of running, so
// scripts/bench-xz-baseline.sh can time the xz tool on the same bytes.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Keel/Lzma.h"

namespace {

constexpr size_t kBlockBytes = 10 << 20;

// Event records as the store keeps them: a 24-byte header (type, size,
// rising millisecond clock), numeric slots, then paths, command lines, user
// names and hex hashes. Deterministic, so every run measures the same bytes.
std::vector<uint8_t> EventLikeRecords(size_t size) {
  static const char* kUsers[] = {"root", "svc-backup", "alice", "www-data", "postgres"};
  static const char* kBinaries[] = {"/usr/bin/python3", "/usr/sbin/sshd", "/usr/bin/curl",
                                    "/opt/agent/bin/updater", "/usr/lib/systemd/systemd-journald"};
  std::vector<uint8_t> out;
  out.reserve(size + 1024);
  uint64_t state = 1, clock_ms = 1795313392000ull;
  auto next = [&state] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state >> 33);
  };
  auto put = [&out](uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  while (out.size() < size) {
    char text[512];
    uint32_t pid = 1000 + next() % 30000, id = next() % 64;
    int n = std::snprintf(text, sizeof(text),
                          "%s%c%s --job %u --queue jobs-%u --config /etc/agent/conf.d/%02u.yaml%c"
                          "/var/lib/agent/cache/%08x/%u.tmp%c%s%c",
                          kBinaries[id % 5], 0, kBinaries[id % 5], next() % 100000, id, id % 7, 0,
                          next(), pid, 0, kUsers[next() % 5], 0);
    for (int i = 0; i < 64; ++i) text[n++] = "0123456789abcdef"[next() % 16];
    text[n++] = 0;
    size_t start = out.size();
    clock_ms += next() % 40;
    put(2 + id % 40, 4);
    put(0, 4);
    put(1, 2);
    put(0, 2);  // size, patched below
    put(0, 4);
    put(clock_ms, 8);
    put(pid, 4);
    put(pid - 1 - next() % 50, 4);
    put(next() % 4096 * 512, 8);
    out.insert(out.end(), text, text + n);
    uint16_t length = static_cast<uint16_t>(out.size() - start);
    std::memcpy(&out[start + 10], &length, 2);
  }
  out.resize(size);
  return out;
}

const std::vector<uint8_t>& Sample() {
  static const std::vector<uint8_t> sample = EventLikeRecords(kBlockBytes);
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
