// The reader on a store of about 100 MiB of raw events (TARN_READER_BENCH_MIB
// changes it) in blocks of 10 MiB, written by the real writer over four days:
// by-time search with a cold and a warm block cache, one Increment, GetEvent
// on a cached block, and whole walks. Throughput counts raw bytes (records
// plus entry tables), the bytes xz -d produces from the same payloads.
//
// TARN_BENCH_DUMP=path also writes every block's payload, as the plain .xz
// stream, back to back into `path`, and the raw byte count into "path.raw",
// so that scripts/bench-reader-xz.sh can time xz -d on exactly those bytes.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "common/BenchStore.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/format/EventsBlock.h"

namespace {

using Keel::Collections::Buffer;
using Tarn::Bench::BenchStore;
using Tarn::Bench::kFirstDay;
using Tarn::Storage::EventStorageProvider;
using Tarn::Storage::RawIterator;

constexpr uint16_t kDays = 4;

// Event-like records: a 24-byte header, numeric slots, then paths, command
// lines, a user name and a hex hash. Deterministic.
class RecordMaker {
 public:
  const std::vector<uint8_t>& Next(uint64_t clock_ms) {
    static const char* kUsers[] = {"root", "svc-backup", "alice", "www-data", "postgres"};
    static const char* kBinaries[] = {"/usr/bin/python3", "/usr/sbin/sshd", "/usr/bin/curl",
                                      "/opt/agent/bin/updater",
                                      "/usr/lib/systemd/systemd-journald"};
    char text[512];
    uint32_t pid = 1000 + Random() % 30000, id = Random() % 64;
    int n = std::snprintf(text, sizeof(text),
                          "%s%c%s --job %u --queue jobs-%u --config /etc/agent/conf.d/%02u.yaml%c"
                          "/var/lib/agent/cache/%08x/%u.tmp%c%s%c",
                          kBinaries[id % 5], 0, kBinaries[id % 5], Random() % 100000, id, id % 7, 0,
                          Random(), pid, 0, kUsers[Random() % 5], 0);
    for (int i = 0; i < 64; ++i) text[n++] = "0123456789abcdef"[Random() % 16];
    text[n++] = 0;
    record_.clear();
    Put(2 + id % 40, 4);
    Put(0, 4);
    Put(1, 2);
    Put(40 + n, 2);
    Put(0, 4);
    Put(clock_ms, 8);
    Put(pid, 4);
    Put(pid - 1 - Random() % 50, 4);
    Put(Random() % 4096 * 512, 8);
    record_.insert(record_.end(), text, text + n);
    return record_;
  }

 private:
  uint32_t Random() {
    state_ = state_ * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state_ >> 33);
  }
  void Put(uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) record_.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }

  uint64_t state_ = 1;
  std::vector<uint8_t> record_;
};

uint64_t TargetBytes() {
  const char* mib = std::getenv("TARN_READER_BENCH_MIB");
  uint64_t value = mib != nullptr ? std::strtoull(mib, nullptr, 10) : 100;
  return (value == 0 ? 100 : value) << 20;
}

// Writes every block's payload as the plain .xz stream, and the raw byte
// count into "<path>.raw".
bool DumpPayloads(BenchStore& store, const char* path) {
  std::FILE* out = std::fopen(path, "wb");
  if (out == nullptr) return false;
  store.Survey([&](const EventStorageProvider::DecodeToken&, const Buffer& stored) {
    std::vector<uint8_t> plain(stored.Data(), stored.Data() + stored.Size());
    Tarn::Storage::InvertBytes(plain.data(), plain.size());
    std::fwrite(plain.data(), 1, plain.size(), out);
  });
  std::fclose(out);
  std::FILE* raw = std::fopen((std::string(path) + ".raw").c_str(), "w");
  if (raw == nullptr) return false;
  std::fprintf(raw, "%llu\n", static_cast<unsigned long long>(store.raw_bytes));
  std::fclose(raw);
  return true;
}

// The store, built once: records of about 250 bytes spread evenly over the
// days, several per second.
BenchStore& TheStore() {
  static BenchStore* store = [] {
    auto* s = new BenchStore();
    RecordMaker maker;
    Tarn::Bench::StoreShape shape;
    shape.name = "reader-bench";
    shape.bytes = TargetBytes();
    shape.days = kDays;
    if (!s->Build(shape, [&](uint64_t time_ms) -> const std::vector<uint8_t>& {
          return maker.Next(time_ms);
        })) {
      return s;
    }
    if (const char* dump = std::getenv("TARN_BENCH_DUMP")) s->ok = DumpPayloads(*s, dump);
    return s;
  }();
  return *store;
}

// A time in the stored range, on the second of some event.
Keel::OS::DateTime RandomTime(std::mt19937& random) {
  const auto day = static_cast<uint16_t>(kFirstDay + random() % kDays);
  return Keel::OS::DateTime(
      static_cast<int64_t>(Tarn::Storage::ToEpochSeconds(day, random() % 86'400)));
}

void BM_ByTimeSearchColdCache(benchmark::State& state) {
  BenchStore& store = TheStore();
  if (!store.ok) return state.SkipWithError("no store");
  std::mt19937 random(1);
  for (auto _ : state) {
    state.PauseTiming();
    store.FreshReader();
    Keel::OS::DateTime time = RandomTime(random);
    state.ResumeTiming();
    benchmark::DoNotOptimize(store.reader().GetIterVal(time, Tarn::Comm::Interface::AtOrAfter));
  }
}
BENCHMARK(BM_ByTimeSearchColdCache)->Unit(benchmark::kMillisecond)->Iterations(8);

void BM_ByTimeSearchWarmCache(benchmark::State& state) {
  BenchStore& store = TheStore();
  if (!store.ok) return state.SkipWithError("no store");
  // Times inside the first block only, which the first search loads.
  EventStorageProvider& reader = store.reader();
  RawIterator block0(reader.GetFirstIterVal());
  Tarn::Storage::BlockCache::BlockPtr block = reader.GetBlockFromCache(block0);
  Keel::OS::DateTime first;
  Keel::OS::DateTime last;
  if (block == nullptr || !reader.GetTime(block0, first) ||
      !reader.GetTime(RawIterator(block0.Day(), block0.Block(), block->EventCount() - 1), last)) {
    return state.SkipWithError("no first block");
  }
  const int64_t from = first.ToSecondsSinceEpoch();
  const int64_t span = last.ToSecondsSinceEpoch() - from + 1;
  std::mt19937 random(2);
  for (auto _ : state) {
    Keel::OS::DateTime time(from + static_cast<int64_t>(random() % span));
    benchmark::DoNotOptimize(reader.GetIterVal(time, Tarn::Comm::Interface::AtOrAfter));
  }
}
BENCHMARK(BM_ByTimeSearchWarmCache)->Unit(benchmark::kMicrosecond);

void BM_Increment(benchmark::State& state) {
  BenchStore& store = TheStore();
  if (!store.ok) return state.SkipWithError("no store");
  EventStorageProvider& reader = store.reader();
  const uint64_t first = reader.GetFirstIterVal();
  uint64_t p = first;
  for (auto _ : state) {
    if (!reader.Increment(p)) p = first;
    benchmark::DoNotOptimize(p);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Increment);

void BM_GetEventCachedBlock(benchmark::State& state) {
  BenchStore& store = TheStore();
  if (!store.ok) return state.SkipWithError("no store");
  EventStorageProvider& reader = store.reader();
  RawIterator first(reader.GetFirstIterVal());
  Tarn::Events::GenericEventHolder holder;
  if (!reader.GetEvent(first, &holder)) return state.SkipWithError("no first event");
  const uint32_t count = reader.GetBlockFromCache(first)->EventCount();
  std::mt19937 random(3);
  uint64_t bytes = 0;
  for (auto _ : state) {
    RawIterator at(first.Day(), first.Block(), random() % count);
    if (!reader.GetEvent(at, &holder)) return state.SkipWithError("read failed");
    bytes += holder.Size();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_GetEventCachedBlock);

// Every event, in order, through GetEvent, from a cold cache.
void BM_FullWalkGetEvent(benchmark::State& state) {
  BenchStore& store = TheStore();
  if (!store.ok) return state.SkipWithError("no store");
  Tarn::Events::GenericEventHolder holder;
  for (auto _ : state) {
    state.PauseTiming();
    store.FreshReader();
    state.ResumeTiming();
    EventStorageProvider& reader = store.reader();
    uint64_t read = 0;
    for (uint64_t p = reader.GetFirstIterVal(); p != RawIterator::Invalid; reader.Increment(p)) {
      read += reader.GetEvent(p, &holder) ? 1 : 0;
    }
    if (read != store.events) return state.SkipWithError("walk missed events");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * store.events));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * store.raw_bytes));
}
BENCHMARK(BM_FullWalkGetEvent)->Unit(benchmark::kMillisecond)->Iterations(2);

// Every block handed out encoded and decoded by the consumer.
void BM_FullWalkProcessBlocks(benchmark::State& state) {
  BenchStore& store = TheStore();
  if (!store.ok) return state.SkipWithError("no store");
  EventStorageProvider& reader = store.reader();
  Buffer decoded;
  Tarn::Storage::Telemetry::StorageTelemetry telemetry;
  for (auto _ : state) {
    uint64_t events = 0;
    reader.ProcessBlocks(
        reader.GetFirstIterVal(), reader.GetLastIterVal(),
        [&](const EventStorageProvider::DecodeToken& token, const Buffer& stored) {
          // The stored bytes are the reader's; decode a copy.
          Buffer copy;
          copy.Assign(stored);
          if (EventStorageProvider::DecodeBlock(copy, token.decoded_size, decoded, telemetry)) {
            events += token.event_count;
          }
        });
    if (events != store.events) return state.SkipWithError("blocks missed");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * store.events));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * store.raw_bytes));
}
BENCHMARK(BM_FullWalkProcessBlocks)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
