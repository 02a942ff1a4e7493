#include "manager/telemetry/StorageTelemetry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Time.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage::Telemetry {
namespace {

using Keel::Utils::TreeContainer;

std::atomic<uint64_t> g_now{0};
uint64_t FakeClock() { return g_now.load(); }

// Records what the collector sends; IReport's destructor is not virtual.
class FakeReport final : public Comm::Interfaces::IReport {
 public:
  bool Send(const char* event_name, const char* json) override {
    std::lock_guard<std::mutex> lock(mutex);
    sent.push_back({event_name, json});
    return accept;
  }

  struct Sent {
    std::string name;
    std::string json;
  };
  std::mutex mutex;
  std::vector<Sent> sent;
  bool accept = true;
};

class FakeOwner final : public ReportContributor {
 public:
  bool AddTelemetry(TreeContainer::Node root) override {
    ++calls;
    return succeed && root.Set("disk_size_mb", 3.5);
  }
  int calls = 0;
  bool succeed = true;
};

class StorageTelemetryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now = 1'000'000;
    Keel::OS::Time::SetClockSource(&FakeClock);
    Settings settings = Settings::default_();
    ASSERT_TRUE(telemetry.create(settings, &channel, dir.path(), &owner));
  }
  void TearDown() override {
    Keel::OS::Time::SetClockSource(nullptr);
    Keel::OS::Faults::ClearRules();
  }

  // The report as the repository would receive it, parsed back.
  TreeContainer Report() {
    size_t before = channel.sent.size();
    EXPECT_TRUE(telemetry.report(&StorageTelemetry::to_repo, owner));
    TreeContainer doc;
    if (channel.sent.size() == before + 1) {
      EXPECT_EQ(channel.sent.back().name, "storage.telemetry");
      EXPECT_TRUE(doc.Parse(channel.sent.back().json));
    }
    return doc;
  }
  static uint64_t U(TreeContainer& doc, const char* key) {
    uint64_t value = ~0ull;
    EXPECT_TRUE(doc.Root().Child(key).GetUInt64(value)) << key;
    return value;
  }
  static double D(TreeContainer& doc, const char* key) {
    double value = -1;
    EXPECT_TRUE(doc.Root().Child(key).GetDouble(value)) << key;
    return value;
  }

  void Timed(void (StorageTelemetry::*start)(), void (StorageTelemetry::*end)(std::optional<bool>&),
             uint64_t at, uint64_t duration, std::optional<bool> ok) {
    g_now = at;
    (telemetry.*start)();
    g_now = at + duration;
    (telemetry.*end)(ok);
  }
  void Block(uint32_t events, uint32_t raw = 1000, uint32_t stored = 400) {
    std::optional<EventBlockData> block = EventBlockData{7, raw, stored, events, 1};
    telemetry.notify_buffer_processing_ended(block);
  }

  tarn::test::TempDir dir;
  FakeReport channel;
  FakeOwner owner;
  StorageTelemetry telemetry;
};

TEST_F(StorageTelemetryTest, TimedPairsAddOnlyCompleteSuccessfulOperations) {
  using T = StorageTelemetry;
  TreeContainer empty = Report();
  EXPECT_EQ(D(empty, "compression_duration_avg_ms"), 0.0);
  EXPECT_EQ(D(empty, "block_dump_occurence_avg_ms"), 0.0);

  Timed(&T::notify_compression_started, &T::notify_compression_ended, 2000, 10, std::nullopt);
  Timed(&T::notify_compression_started, &T::notify_compression_ended, 3000, 10, false);
  Timed(&T::notify_compression_started, &T::notify_compression_ended, 4000, 0, true);
  EXPECT_EQ(telemetry.snapshot().averages[kCompressionMs].count, 0u);
  // Each failure cleared the start, so a lone successful end adds nothing.
  g_now = 5000;
  std::optional<bool> ok = true;
  telemetry.notify_compression_ended(ok);
  EXPECT_EQ(telemetry.snapshot().averages[kCompressionMs].count, 0u);

  Timed(&T::notify_compression_started, &T::notify_compression_ended, 6000, 7, true);
  Timed(&T::notify_compression_started, &T::notify_compression_ended, 7000, 4, true);
  Timed(&T::notify_uncompression_started, &T::notify_uncompression_ended, 8000, 9, true);
  TreeContainer doc = Report();
  EXPECT_EQ(D(doc, "compression_duration_avg_ms"), 5.5);
  EXPECT_EQ(D(doc, "uncompression_duration_avg_ms"), 9.0);

  Timed(&T::notify_init_started, &T::notify_init_ended, 9000, 40, true);
  Timed(&T::notify_closing_started, &T::notify_closing_ended, 9100, 25, true);
  g_now = 9500;
  doc = Report();
  EXPECT_EQ(U(doc, "init_duration_ms"), 40u);
  EXPECT_EQ(U(doc, "uninit_duration_ms"), 25u);
  EXPECT_EQ(U(doc, "uptime_ms"), 500u);
  // A failed close keeps no end: its duration reads 0, never a wrapped number.
  Timed(&T::notify_closing_started, &T::notify_closing_ended, 9600, 25, false);
  doc = Report();
  EXPECT_EQ(U(doc, "uninit_duration_ms"), 0u);
}

TEST_F(StorageTelemetryTest, BlockProcessingFeedsBlockAveragesAndGates) {
  // Compressing happens inside processing: neither may clobber the other.
  g_now = 100;
  telemetry.notify_buffer_processing_start();
  g_now = 110;
  telemetry.notify_compression_started();
  g_now = 130;
  std::optional<bool> ok = true;
  telemetry.notify_compression_ended(ok);
  g_now = 150;
  Block(10, 1000, 400);
  Block(30, 3000, 800);  // no start: counted as a block, no duration
  telemetry.notify_buffer_processing_start();
  std::optional<EventBlockData> none;
  g_now = 170;
  telemetry.notify_buffer_processing_ended(none);  // a failed block adds nothing

  TreeContainer doc = Report();
  EXPECT_EQ(D(doc, "process_duration_avg_ms"), 50.0);
  EXPECT_EQ(D(doc, "compression_duration_avg_ms"), 20.0);
  EXPECT_EQ(D(doc, "block_events_count_avg"), 20.0);
  EXPECT_EQ(D(doc, "block_compressed_size_avg_bytes"), 600.0);
  EXPECT_EQ(D(doc, "block_encrypted_size_avg_bytes"), 612.0);
  EXPECT_EQ(D(doc, "block_raw_size_avg_bytes"), 2000.0);
  EXPECT_EQ(U(doc, "blocks_count"), 2u);
  StorageTelemetry::Snapshot s = telemetry.snapshot();
  EXPECT_EQ(s.pending_events, 40u);
  EXPECT_EQ(s.pending_blocks, 2u);

  // Dump intervals start counting at the second hand-over.
  for (uint64_t at : {1000, 1500, 2500}) {
    g_now = at;
    telemetry.notify_block_dumped(1);
  }
  doc = Report();
  EXPECT_EQ(D(doc, "block_dump_occurence_avg_ms"), 750.0);
}

TEST_F(StorageTelemetryTest, EventTypeCountersAndTheInitStartSlot) {
  using T = StorageTelemetry;
  Timed(&T::notify_init_started, &T::notify_init_ended, 10'000, 40, true);
  g_now = 10'100;
  TreeContainer before = Report();
  EXPECT_EQ(U(before, "events_count"), 0u);

  telemetry.notify_on_event(1025);
  telemetry.notify_on_event(0xFFFFFFFFu);
  TreeContainer same = Report();
  EXPECT_EQ(same.Dump(), before.Dump());

  telemetry.notify_on_event(1023);
  telemetry.notify_on_event(0);
  telemetry.notify_on_event(0);
  TreeContainer counted = Report();
  EXPECT_EQ(U(counted, "events_count"), 3u);
  EXPECT_EQ(telemetry.event_count(0), 2u);
  EXPECT_EQ(telemetry.event_count(1025), 0u);

  // Type 1024 is counted in the init start's slot: the start moves 1 ms later.
  telemetry.notify_on_event(1024);
  TreeContainer moved = Report();
  EXPECT_EQ(U(moved, "events_count"), 3u);
  EXPECT_EQ(U(moved, "init_duration_ms"), 39u);
  EXPECT_EQ(U(moved, "uptime_ms"), 99u);
  EXPECT_EQ(telemetry.snapshot().init_started, 10'001u);
}

TEST_F(StorageTelemetryTest, ReadyToSendGates) {
  const TelemetrySettings ts = Settings::telemetry;
  // Nothing written: never due, not even forced or after a long silence.
  EXPECT_FALSE(telemetry.ready_to_send(ts, true));
  g_now = 1'000'000 + 30 * 86'400'000ull;
  EXPECT_FALSE(telemetry.ready_to_send(ts, false));

  g_now = 1'000'000;
  Block(1);
  EXPECT_TRUE(telemetry.ready_to_send(ts, true));
  EXPECT_FALSE(telemetry.ready_to_send(ts, false));
  g_now = 1'000'000 + StorageTelemetry::kMaxReportIntervalMs;
  EXPECT_FALSE(telemetry.ready_to_send(ts, false));
  g_now += 1;
  EXPECT_TRUE(telemetry.ready_to_send(ts, false));

  StorageTelemetry blocks;
  Settings settings = Settings::default_();
  ASSERT_TRUE(blocks.create(settings, &channel, dir.path(), nullptr));
  std::optional<EventBlockData> one = EventBlockData{1, 10, 10, 1, 1};
  for (int i = 0; i < 27; ++i) blocks.notify_buffer_processing_ended(one);
  EXPECT_FALSE(blocks.ready_to_send(ts, false));
  blocks.notify_buffer_processing_ended(one);
  EXPECT_TRUE(blocks.ready_to_send(ts, false));

  StorageTelemetry events;
  ASSERT_TRUE(events.create(settings, &channel, dir.path(), nullptr));
  std::optional<EventBlockData> big = EventBlockData{1, 10, 10, 511'999, 1};
  events.notify_buffer_processing_ended(big);
  EXPECT_FALSE(events.ready_to_send(ts, false));
  big->events_count = 1;
  events.notify_buffer_processing_ended(big);
  EXPECT_TRUE(events.ready_to_send(ts, false));
}

TEST_F(StorageTelemetryTest, SendToCloudDeliversOnceAndRestartsTheGates) {
  const TelemetrySettings ts = Settings::telemetry;
  EXPECT_FALSE(telemetry.send_to_cloud(ts, true));
  EXPECT_TRUE(channel.sent.empty());

  for (int i = 0; i < 28; ++i) Block(100);
  // A refused send keeps the report due.
  channel.accept = false;
  EXPECT_FALSE(telemetry.send_to_cloud(ts, false));
  EXPECT_TRUE(telemetry.ready_to_send(ts, false));
  telemetry.update_report_builder(nullptr);
  EXPECT_FALSE(telemetry.send_to_cloud(ts, true));
  telemetry.update_report_builder(&channel);
  channel.accept = true;
  channel.sent.clear();

  g_now = 2'000'000;
  EXPECT_TRUE(telemetry.send_to_cloud(ts, false));
  ASSERT_EQ(channel.sent.size(), 1u);
  EXPECT_EQ(channel.sent[0].name, "tarn_storage_telemetry");
  TreeContainer doc;
  ASSERT_TRUE(doc.Parse(channel.sent[0].json));
  EXPECT_EQ(U(doc, "blocks_count"), 28u);
  EXPECT_EQ(D(doc, "disk_size_mb"), 3.5);

  StorageTelemetry::Snapshot s = telemetry.snapshot();
  EXPECT_EQ(s.pending_blocks, 0u);
  EXPECT_EQ(s.pending_events, 0u);
  EXPECT_EQ(s.last_sent, 2'000'000u);
  EXPECT_EQ(s.blocks_count, 28u);  // reports are cumulative; only the gates restart
  EXPECT_FALSE(telemetry.ready_to_send(ts, true));
  EXPECT_FALSE(telemetry.send_to_cloud(ts, true));
  EXPECT_EQ(channel.sent.size(), 1u);
}

TEST_F(StorageTelemetryTest, ReportKeysComeInTheirFixedOrder) {
  static const char* const kKeys[] = {
      "disk_size_mb",
      "version",
      "init_duration_ms",
      "uninit_duration_ms",
      "uptime_ms",
      "compression_duration_avg_ms",
      "uncompression_duration_avg_ms",
      "process_duration_avg_ms",
      "block_events_count_avg",
      "block_compressed_size_avg_bytes",
      "block_raw_size_avg_bytes",
      "block_encrypted_size_avg_bytes",
      "block_dump_occurence_avg_ms",
      "blocks_count",
      "discarded_blocks_count",
      "cache_miss_count",
      "unreachable_reached_count",
      "events_count",
      "clock_refused_events_count",
      "files_set_aside_count",
  };
  telemetry.notify_cache_miss();
  telemetry.notify_cache_miss();
  telemetry.unreachable_reached();
  TreeContainer doc = Report();
  TreeContainer::Node root = doc.Root();
  ASSERT_EQ(root.Size(), std::size(kKeys));
  for (size_t i = 0; i < std::size(kKeys); ++i) {
    std::string_view key;
    ASSERT_TRUE(root.KeyAt(i, key));
    EXPECT_EQ(key, kKeys[i]) << i;
  }
  EXPECT_EQ(U(doc, "version"), StorageTelemetry::kReportVersion);
  EXPECT_EQ(U(doc, "cache_miss_count"), 2u);
  EXPECT_EQ(U(doc, "unreachable_reached_count"), 1u);

  // A failing owner or a missing sink ends the report before anything is sent.
  tarn::test::LogCapture log;
  size_t sent = channel.sent.size();
  owner.succeed = false;
  EXPECT_FALSE(telemetry.report(&StorageTelemetry::to_repo, owner));
  EXPECT_FALSE(telemetry.report(nullptr, owner));
  EXPECT_EQ(channel.sent.size(), sent);
  EXPECT_EQ(log.CountFrom(Keel::Log::StorageTelemetry, Keel::Log::Error), 2u);
}

TEST_F(StorageTelemetryTest, ToDiskWritesOneNamedPrivateFileOrNothing) {
  Block(5);
  g_now = 1'234'567;
  ASSERT_TRUE(telemetry.report(&StorageTelemetry::to_disk, owner));
  std::string path = dir.File("telemetry.00000000000001234567.json");
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  TreeContainer doc;
  ASSERT_TRUE(doc.Parse(tarn::test::ReadWholeFile(path)));
  EXPECT_EQ(U(doc, "blocks_count"), 1u);
  EXPECT_EQ(D(doc, "block_events_count_avg"), 5.0);

  Keel::OS::Faults::Rule rule;
  rule.path_contains = "telemetry.";
  rule.operations = Keel::OS::Faults::Write;
  Keel::OS::Faults::AddRule(rule);
  g_now = 1'234'568;
  EXPECT_FALSE(telemetry.report(&StorageTelemetry::to_disk, owner));
  EXPECT_FALSE(Keel::OS::FileSystem::Exists(dir.File("telemetry.00000000000001234568.json")));

  // A collector needs a directory to write to.
  StorageTelemetry unbound;
  Settings settings = Settings::default_();
  EXPECT_FALSE(unbound.create(settings, &channel, "", nullptr));
  TreeContainer any;
  EXPECT_FALSE(unbound.to_disk(any));
}

TEST_F(StorageTelemetryTest, LogOnlyNotifications) {
  tarn::test::LogCapture log;
  StorageTelemetry::Snapshot before = telemetry.snapshot();
  telemetry.notify_worker_triggered(WorkerTaskData{19'000, 2, 77, 0xABCDEF, 5});
  auto records = log.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].severity, Keel::Log::Information);
  EXPECT_EQ(records[0].values[0], (19'000ull << 32) | 2);
  EXPECT_EQ(records[0].values[1], 77u);
  EXPECT_EQ(records[0].values[2], (0xABCDEFull << 32) | 5);
  EXPECT_EQ(telemetry.snapshot().pending_events, before.pending_events);

  telemetry.notify_events_buffer_discarded();
  EXPECT_EQ(log.Count(Keel::Log::Warning), 1u);
  EXPECT_EQ(telemetry.snapshot().discarded_blocks_count, 1u);
}

TEST_F(StorageTelemetryTest, ConcurrentNotificationsAllCount) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      std::optional<EventBlockData> block = EventBlockData{1, 100, 50, 2, 1};
      for (int i = 0; i < kRounds; ++i) {
        telemetry.notify_on_event(static_cast<uint32_t>(t));
        telemetry.notify_cache_miss();
        telemetry.notify_buffer_processing_ended(block);
        telemetry.notify_block_dumped(1);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  StorageTelemetry::Snapshot s = telemetry.snapshot();
  EXPECT_EQ(s.events_count, uint64_t{kThreads} * kRounds);
  EXPECT_EQ(s.cache_miss_count, uint32_t{kThreads} * kRounds);
  EXPECT_EQ(s.blocks_count, uint32_t{kThreads} * kRounds);
  EXPECT_EQ(s.pending_events, 2u * kThreads * kRounds);
  EXPECT_EQ(s.averages[kBlockEvents].count, uint32_t{kThreads} * kRounds);
  EXPECT_EQ(s.averages[kBlockEvents].Value(), 2.0);
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(telemetry.event_count(t), uint64_t{kRounds});
}

}  // namespace
}  // namespace Tarn::Storage::Telemetry
