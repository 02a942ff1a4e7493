// Writing and re-reading one 10 MiB events block the way the store does:
// entry table, preset-6 compression, inversion, header and payload writes and
// the flush; then bounded header and payload reads, inversion, decompression
// and the table check. Throughput counts raw bytes (records plus table), with
// one encoder thread against two.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "Keel/Collections/Array.h"
#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "manager/DayFile.h"
#include "manager/EventsBlock.h"

namespace {

using Keel::Collections::Buffer;
using Tarn::Storage::BlockEntry;

constexpr size_t kBlockBytes = 10 << 20;

struct Records {
  std::vector<uint8_t> bytes;
  Keel::Collections::Array<BlockEntry> entries;
};

// Event-like records: a 24-byte header with a rising millisecond clock, a few
// numeric slots, then paths, command lines, user names and a hex hash.
// Deterministic, so every run measures the same bytes.
Records EventLikeRecords(size_t size) {
  static const char* kUsers[] = {"root", "svc-backup", "alice", "www-data", "postgres"};
  static const char* kBinaries[] = {"/usr/bin/python3", "/usr/sbin/sshd", "/usr/bin/curl",
                                    "/opt/agent/bin/updater", "/usr/lib/systemd/systemd-journald"};
  Records out;
  out.bytes.reserve(size + 1024);
  uint64_t state = 1, clock_ms = 1795313392000ull;
  auto next = [&state] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state >> 33);
  };
  auto put = [&out](uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  while (true) {
    char text[512];
    uint32_t pid = 1000 + next() % 30000, id = next() % 64;
    int n = std::snprintf(text, sizeof(text),
                          "%s%c%s --job %u --queue jobs-%u --config /etc/agent/conf.d/%02u.yaml%c"
                          "/var/lib/agent/cache/%08x/%u.tmp%c%s%c",
                          kBinaries[id % 5], 0, kBinaries[id % 5], next() % 100000, id, id % 7, 0,
                          next(), pid, 0, kUsers[next() % 5], 0);
    for (int i = 0; i < 64; ++i) text[n++] = "0123456789abcdef"[next() % 16];
    text[n++] = 0;
    size_t start = out.bytes.size();
    if (start + 40 + n > size) break;
    clock_ms += next() % 40;
    put(2 + id % 40, 4);
    put(0, 4);
    put(1, 2);
    put(40 + n, 2);
    put(0, 4);
    put(clock_ms, 8);
    put(pid, 4);
    put(pid - 1 - next() % 50, 4);
    put(next() % 4096 * 512, 8);
    out.bytes.insert(out.bytes.end(), text, text + n);
    uint32_t second = static_cast<uint32_t>(clock_ms / 1000 % 86400);
    out.entries.Add(BlockEntry{static_cast<uint32_t>(start), second});
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
