// Writing and re-reading one 10 MiB events block the way the store does:
// entry table, preset-6 compression, inversion, header and payload writes and
// the flush; then bounded header and payload reads, inversion, decompression
// and the table check. Throughput counts raw bytes (records plus table), with
// one encoder thread against two.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "Keel/Collections/Array.h"
#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"
#include "samples/EventLikeRecords.h"

namespace {

using Keel::Collections::Buffer;
using Tarn::Storage::BlockEntry;

constexpr size_t kBlockBytes = 10 << 20;

struct Records {
  std::vector<uint8_t> bytes;
  Keel::Collections::Array<BlockEntry> entries;
};

// The shared event-like sample with the entry table the store would build.
Records EventLikeRecords(size_t size) {
  Tarn::Samples::SampleRecords sample = Tarn::Samples::EventLikeRecords(size);
  Records out;
  out.bytes = std::move(sample.bytes);
  for (size_t i = 0; i < sample.offsets.size(); ++i) {
    uint32_t second = static_cast<uint32_t>(sample.times_ms[i] / 1000 % 86400);
    out.entries.Add(BlockEntry{sample.offsets[i], second});
  }
  return out;
}

const Records& Sample() {
  static const Records sample = EventLikeRecords(kBlockBytes);
  return sample;
}

// A private directory for the day file, removed at exit.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarn-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  std::string File(const char* name) const { return path_ + "/" + name; }
  bool Ok() const { return !path_.empty(); }

 private:
  std::string path_;
};

bool Encode(const Records& records, Buffer& raw, Buffer& payload,
            Tarn::Storage::EncodedBlock& encoded, uint32_t threads) {
  raw.Reset();
  return raw.Push(records.bytes.data(), records.bytes.size()) &&
         Tarn::Storage::EncodeBlock(raw, records.entries, payload, encoded, {6, threads});
}

void BM_WriteBlock(benchmark::State& state) {
  const Records& records = Sample();
  ScratchDirectory dir;
  Keel::OS::File file;
  if (!dir.Ok() || !Tarn::Storage::CreateDayFile(dir.File("storage.00001.002.db"), file)) {
    state.SkipWithError("no day file");
    return;
  }
  Buffer raw, payload;
  Tarn::Storage::EncodedBlock encoded;
  uint32_t threads = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    if (!Encode(records, raw, payload, encoded, threads) ||
        !Tarn::Storage::WriteBlock(file, Tarn::Storage::kDayFileHeaderSize, encoded.header,
                                   payload)) {
      state.SkipWithError("write failed");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * encoded.header.raw_size));
  state.counters["ratio"] = static_cast<double>(encoded.header.stored_size) /
                            static_cast<double>(encoded.header.raw_size);
}

// Decoding is single-threaded either way; the argument picks the encoder
// that wrote the block (one xz block, or 2 MiB xz blocks).
void BM_ReadBlock(benchmark::State& state) {
  const Records& records = Sample();
  ScratchDirectory dir;
  Keel::OS::File file;
  Buffer raw, payload;
  Tarn::Storage::EncodedBlock encoded;
  uint32_t threads = static_cast<uint32_t>(state.range(0));
  if (!dir.Ok() || !Tarn::Storage::CreateDayFile(dir.File("storage.00001.002.db"), file) ||
      !Encode(records, raw, payload, encoded, threads) ||
      !Tarn::Storage::WriteBlock(file, Tarn::Storage::kDayFileHeaderSize, encoded.header,
                                 payload)) {
    state.SkipWithError("no block to read");
    return;
  }
  uint64_t file_size = 0;
  file.GetSize(file_size);
  for (auto _ : state) {
    Tarn::Storage::BlockHeader header;
    if (!Tarn::Storage::ReadBlockHeader(file, Tarn::Storage::kDayFileHeaderSize, file_size,
                                        header) ||
        !Tarn::Storage::ReadBlockPayload(file, Tarn::Storage::kDayFileHeaderSize, header,
                                         payload) ||
        !Tarn::Storage::DecodeBlock(payload, header, raw)) {
      state.SkipWithError("read failed");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * encoded.header.raw_size));
}

// Wall time, not the main thread's CPU time, is what the writer thread waits.
BENCHMARK(BM_WriteBlock)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadBlock)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
