// The query service on real stores written by the real writer.
//
// A store of about 100 MiB of raw events (TARN_QUERY_BENCH_MIB changes it)
// in 10 MiB blocks over four days, mostly process creations: every block
// decoded once (the limit any scan of the whole store is held to), then a
// selective query over all of it from a cold cache, in rows/s and in events
// scanned/s.
//
// A seven-day store in 512 KiB blocks: a query over one hour of day four.
// The counters show how many blocks the query loaded (the telemetry's cache
// misses) next to how many blocks the index places in that hour and in the
// whole store.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "common/BenchRows.h"
#include "common/BenchStore.h"
#include "hx/MessageBus/Msg.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/format/EventsBlock.h"
#include "manager/index/Index.h"
#include "osquery/Query.h"
#include "osquery/QueryService.h"
#include "osquery/RecordBuilder.h"

namespace {

using Tarn::Bench::BenchStore;
using Tarn::Bench::kFirstDay;
using Tarn::Bench::SetColumn;
using Tarn::Storage::EventStorageProvider;
using Tarn::Storage::RawIterator;

// Deterministic process creations (and one event in seven of another
// table), about 300 bytes each.
class RowMaker {
 public:
  const std::vector<uint8_t>& Next(uint64_t time_ms) {
    static const char* kBinaries[] = {"/usr/bin/python3", "/usr/sbin/sshd", "/usr/bin/curl",
                                      "/opt/agent/bin/updater", "/bin/bash", "/usr/bin/rsync"};
    static const uint32_t kUsers[] = {0, 33, 1000, 1001};
    const char* binary = kBinaries[Random() % 6];
    char text[256];
    if (Random() % 7 == 0) {
      auto mail = Tarn::Bench::MakeRow("edr_email_sent");
      SetColumn(*mail, "date_time", time_ms);
      SetColumn(*mail, "pid", 100 + Random() % 30000);
      SetColumn(*mail, "local_ip", "10.0.0.7");
      SetColumn(*mail, "remote_ip", "192.168.1.20");
      std::snprintf(text, sizeof text, "report %u for %s", Random(), binary);
      SetColumn(*mail, "subject", text);
      SetColumn(*mail, "sender", "agent@example.org");
      return Build(*mail);
    }
    auto row = Tarn::Bench::MakeRow("edr_process_create");
    SetColumn(*row, "date_time", time_ms);
    SetColumn(*row, "pid_time_stamp", time_ms - Random() % 1000);
    SetColumn(*row, "puid", Random() * 0x100000001ull);
    SetColumn(*row, "pid", 100 + Random() % 30000);
    SetColumn(*row, "parent_pid", 1 + Random() % 3000);
    SetColumn(*row, "user_uid", kUsers[Random() % 4]);
    SetColumn(*row, "path", binary);
    std::snprintf(text, sizeof text,
                  "%s --job %u --queue jobs-%u --config /etc/agent/conf.d/%02u.yaml", binary,
                  Random() % 100000, Random() % 64, Random() % 64);
    SetColumn(*row, "command_line", text);
    SetColumn(*row, "environment_variables",
              "PATH=/usr/local/bin:/usr/bin:/bin HOME=/root LANG=C.UTF-8");
    std::snprintf(text, sizeof text, "/var/lib/agent/cache/%08x", Random());
    SetColumn(*row, "working_directory", text);
    SetColumn(*row, "command_line_indexes", "0,17,29");
    SetColumn(*row, "process_name", binary + std::string(binary).rfind('/') + 1);
    return Build(*row);
  }

 private:
  const std::vector<uint8_t>& Build(const google::protobuf::Message& row) {
    if (!Tarn::Storage::OSQuery::BuildRecord(row, builder_)) std::abort();
    record_.assign(builder_.Data(), builder_.Data() + builder_.Size());
    return record_;
  }
  uint32_t Random() {
    state_ = state_ * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state_ >> 33);
  }

  uint64_t state_ = 1;
  Tarn::Events::DynamicEventBuilder builder_;
  std::vector<uint8_t> record_;
};

uint64_t TargetBytes() {
  const char* mib = std::getenv("TARN_QUERY_BENCH_MIB");
  uint64_t value = mib != nullptr ? std::strtoull(mib, nullptr, 10) : 100;
  return (value == 0 ? 100 : value) << 20;
}

// About `bytes` of 300-byte events over `days` days in blocks of `block_size`.
BenchStore* BuildStore(uint64_t bytes, uint16_t days, uint32_t block_size) {
  auto* store = new BenchStore();
  RowMaker maker;
  Tarn::Bench::StoreShape shape;
  shape.name = "query-bench";
  shape.bytes = bytes;
  shape.record_bytes = 300;
  shape.days = days;
  shape.block_size = block_size;
  store->Build(
      shape, [&](uint64_t time_ms) -> const std::vector<uint8_t>& { return maker.Next(time_ms); });
  return store;
}

BenchStore& LargeStore() {
  static BenchStore* store = BuildStore(TargetBytes(), 4, 10'485'760);
  return *store;
}

BenchStore& WeekStore() {
  static BenchStore* store = BuildStore(42u << 20, 7, 512u << 10);
  return *store;
}

Tarn::Storage::OSQuerySettings Limits() {
  Tarn::Storage::OSQuerySettings limits;
  limits.size_limit = 250'000'000;
  limits.row_limit = 49'999'999;
  limits.aux_limit = 4;
  return limits;
}

// Runs one query; its row count, or -1 when it was not complete.
int64_t RunQuery(BenchStore& store, const std::string& constraints, const std::string& columns) {
  Tarn::Storage::OSQuery::Query query;
  query.table = "edr_process_create";
  query.columns = columns;
  query.constraints = constraints;
  hx::MessageBus::Msg msg;
  Tarn::Storage::OSQuery::QueryService queries(store.reader(), store.manager());
  if (!queries.HandleOSQuery(std::move(query), msg, Limits())) return -1;
  auto events = msg.GetField("events");
  if (!events) return -1;
  Tarn::Bench::Answer answer = Tarn::Bench::ParseAnswer(*events);
  return answer.well_formed && answer.status == 0 ? answer.row_count : -1;
}

// Every block read and decoded once, nothing else: the ceiling of a scan.
void BM_DecodeEveryBlock(benchmark::State& state) {
  BenchStore& store = LargeStore();
  if (!store.ok) return state.SkipWithError("no store");
  EventStorageProvider& reader = store.reader();
  Tarn::Storage::EventsBlock block;
  Keel::Collections::Buffer stored;
  if (!block.Create() || !Tarn::Storage::CreateReaderBuffer(stored)) {
    return state.SkipWithError("no buffers");
  }
  for (auto _ : state) {
    uint64_t events = 0;
    for (uint64_t p = reader.GetFirstIterVal(); reader.IsValid(p);) {
      unsigned int version = 0;
      stored.Reset();
      if (!reader.GetBlockDecoded(p, block, stored, version)) {
        return state.SkipWithError("decode failed");
      }
      events += block.EventCount();
      const RawIterator at(p);
      p = RawIterator(at.Day(), at.Block(), block.EventCount() - 1);
      reader.Increment(p);
    }
    if (events != store.events) return state.SkipWithError("blocks missed");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * store.events));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * store.raw_bytes));
}
BENCHMARK(BM_DecodeEveryBlock)->Unit(benchmark::kMillisecond)->Iterations(2);

// sshd run by root: about 3% of the events, all columns.
void BM_SelectiveQueryWholeStore(benchmark::State& state) {
  BenchStore& store = LargeStore();
  if (!store.ok) return state.SkipWithError("no store");
  const std::string constraints = R"({
      "path": {"affinity": "text", "list": [{"op": 2, "expr": "/usr/sbin/sshd"}]},
      "user_uid": {"affinity": "integer", "list": [{"op": 2, "expr": "0"}]}})";
  int64_t rows = 0;
  for (auto _ : state) {
    state.PauseTiming();
    store.FreshReader();  // the store does not fit the cache: every run decodes all of it
    state.ResumeTiming();
    rows = RunQuery(store, constraints, "");
    if (rows <= 0) return state.SkipWithError("query failed");
  }
  const double runs = static_cast<double>(state.iterations());
  state.counters["rows"] = static_cast<double>(rows);
  state.counters["rows/s"] = benchmark::Counter(rows * runs, benchmark::Counter::kIsRate);
  state.counters["scanned/s"] =
      benchmark::Counter(static_cast<double>(store.events) * runs, benchmark::Counter::kIsRate);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * store.raw_bytes));
}
BENCHMARK(BM_SelectiveQueryWholeStore)->Unit(benchmark::kMillisecond)->Iterations(2);

// Blocks of `day` whose events reach into [from, to] (seconds of day).
uint32_t BlocksOverlapping(BenchStore& store, uint16_t day, uint32_t from, uint32_t to) {
  struct Count {
    uint16_t day;
    uint32_t from, to, blocks;
  } count{day, from, to, 0};
  store.manager().ProcessIndex(
      [](Tarn::Storage::Index& index, void* context) {
        auto& c = *static_cast<Count*>(context);
        const Tarn::Storage::DayInfo* info = index.tree().SearchUnsafe(c.day);
        for (uint32_t b = 0; info != nullptr && b < info->GetBlockCount(); ++b) {
          const Tarn::Storage::BlockInfo* block = info->GetBlock(b);
          if (block->end_seconds >= c.from && block->start_seconds <= c.to) ++c.blocks;
        }
        return true;
      },
      &count);
  return count.blocks;
}

// 13:00 to 13:59:59 of the fourth day, all columns.
void BM_OneHourOfSevenDays(benchmark::State& state) {
  BenchStore& store = WeekStore();
  if (!store.ok) return state.SkipWithError("no store");
  const uint16_t day = kFirstDay + 3;
  const uint64_t from = Tarn::Storage::ToEpochSeconds(day, 13 * 3600);
  const std::string constraints =
      R"({"date_time": {"affinity": "bigint", "list": [{"op": 32, "expr": ")" +
      std::to_string(from * 1000) + R"("}, {"op": 16, "expr": ")" +
      std::to_string((from + 3600) * 1000) + R"("}]}})";
  int64_t rows = 0;
  uint32_t misses = 0;
  for (auto _ : state) {
    state.PauseTiming();
    store.FreshReader();
    const uint32_t before = store.manager().telemetry().snapshot().cache_miss_count;
    state.ResumeTiming();
    rows = RunQuery(store, constraints, "");
    state.PauseTiming();
    misses = store.manager().telemetry().snapshot().cache_miss_count - before;
    state.ResumeTiming();
    if (rows <= 0) return state.SkipWithError("query failed");
  }
  state.counters["rows"] = static_cast<double>(rows);
  state.counters["blocks_loaded"] = misses;
  state.counters["blocks_in_hour"] = BlocksOverlapping(store, day, 13 * 3600, 14 * 3600 - 1);
  state.counters["blocks_in_store"] = store.blocks;
}
BENCHMARK(BM_OneHourOfSevenDays)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
