// The query side's cost per event, next to the cost of getting the event at
// all: matching a typical three-constraint filter, building and serializing
// a row, and decoding the event's share of a compressed 10 MiB block.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Keel/Lzma.h"
#include "Tarn/Events/DynamicEventBuilder.h"
#include "common/BenchRows.h"
#include "osquery/AddRow.h"
#include "osquery/ConstraintsList.h"
#include "osquery/Matcher.h"
#include "osquery/RecordBuilder.h"

namespace {

using namespace Tarn::Storage::OSQuery;  // NOLINT: benchmark file
using Tarn::Bench::SetColumn;

constexpr size_t kBlockBytes = 10 << 20;

// Process creations with the texts such events carry; deterministic.
std::vector<std::vector<uint8_t>> ProcessRecords(size_t count) {
  static const char* kBinaries[] = {"/usr/bin/python3", "/usr/sbin/sshd", "/usr/bin/curl",
                                    "/opt/agent/bin/updater", "/bin/bash"};
  std::vector<std::vector<uint8_t>> records;
  uint64_t state = 1;
  auto next = [&state] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state >> 33);
  };
  Tarn::Events::DynamicEventBuilder builder;
  for (size_t i = 0; i < count; ++i) {
    auto row = Tarn::Bench::MakeRow("edr_process_create");
    const char* binary = kBinaries[next() % 5];
    char text[256];
    SetColumn(*row, "date_time", 1795313392000ull + i * 7);
    SetColumn(*row, "pid_time_stamp", 1795313392000ull + i);
    SetColumn(*row, "puid", next() * 0x100000001ull);
    SetColumn(*row, "pid", 100 + next() % 30000);
    SetColumn(*row, "parent_pid", 1 + next() % 3000);
    SetColumn(*row, "user_uid", next() % 4 == 0 ? 0 : 1000 + next() % 5);
    SetColumn(*row, "path", binary);
    std::snprintf(text, sizeof text, "%s --job %u --config /etc/agent/conf.d/%02u.yaml", binary,
                  next() % 100000, next() % 64);
    SetColumn(*row, "command_line", text);
    SetColumn(*row, "environment_variables",
              "PATH=/usr/local/bin:/usr/bin:/bin HOME=/root LANG=C.UTF-8");
    SetColumn(*row, "working_directory", "/var/lib/agent");
    SetColumn(*row, "command_line_indexes", "0,17,29");
    SetColumn(*row, "process_name", binary + std::string(binary).rfind('/') + 1);
    if (!BuildRecord(*row, builder)) std::abort();
    records.emplace_back(builder.Data(), builder.Data() + builder.Size());
  }
  return records;
}

const std::vector<std::vector<uint8_t>>& Records() {
  static const auto records = ProcessRecords(4096);
  return records;
}

void BM_MatchThreeConstraints(benchmark::State& state) {
  ConstraintsList constraints;
  if (!constraints.Parse(R"({
      "pid": {"affinity": "bigint", "list": [{"op": 32, "expr": "1000"}]},
      "user_uid": {"affinity": "bigint", "list": [{"op": 2, "expr": "0"}]},
      "path": {"affinity": "text", "list": [{"op": 65, "expr": "%/bin/%sh"}]}})")) {
    std::abort();
  }
  const auto& records = Records();
  size_t i = 0, matched = 0;
  for (auto _ : state) {
    const auto& r = records[i++ % records.size()];
    matched += MatchEvent(Tarn::Events::Objects::Base(r.data(), r.size()), constraints);
  }
  benchmark::DoNotOptimize(matched);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MatchThreeConstraints);

void AddRows(benchmark::State& state, const char* columns) {
  hx::MessageBus::Msg msg;
  ResponseBuilder response(msg);
  Keel::Collections::Buffer scratch;
  if (!response.buffer.Create(1 << 20, 1 << 20) || !scratch.Create(0)) std::abort();
  Tarn::Storage::OSQuerySettings settings;
  ColumnSelection selection = SplitColumns(columns);
  const auto& records = Records();
  size_t i = 0;
  for (auto _ : state) {
    const auto& r = records[i++ % records.size()];
    RowResult result = AddRow(Tarn::Events::Objects::Base(r.data(), r.size()), response, selection,
                              settings, scratch);
    if (result == kRowBufferFull) {
      response.buffer.Reset();
      result = AddRow(Tarn::Events::Objects::Base(r.data(), r.size()), response, selection,
                      settings, scratch);
    }
    if (result != kRowAdded) std::abort();
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_AddRowAllColumns(benchmark::State& state) { AddRows(state, ""); }
void BM_AddRowTwoColumns(benchmark::State& state) { AddRows(state, "pid,path"); }
BENCHMARK(BM_AddRowAllColumns);
BENCHMARK(BM_AddRowTwoColumns);

// A stored block: distinct records packed up to 10 MiB, compressed as the
// writer does. Items are events, so the time per item is one event's share
// of decoding.
void BM_DecodeBlockShare(benchmark::State& state) {
  const auto records = ProcessRecords(kBlockBytes / 200);
  std::vector<uint8_t> block;
  size_t events = 0;
  while (block.size() < kBlockBytes && events < records.size()) {
    const auto& r = records[events++];
    block.insert(block.end(), r.begin(), r.end());
  }
  Keel::Collections::Buffer packed, out;
  if (!packed.Create(0) || !out.Create(0) ||
      !Keel::Lzma::Compress(block.data(), block.size(), packed)) {
    std::abort();
  }
  for (auto _ : state) {
    if (!Keel::Lzma::Uncompress(packed.Data(), packed.Size(), out, block.size())) std::abort();
  }
  state.counters["events_per_block"] = static_cast<double>(events);
  state.SetItemsProcessed(state.iterations() * events);
}
BENCHMARK(BM_DecodeBlockShare)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
