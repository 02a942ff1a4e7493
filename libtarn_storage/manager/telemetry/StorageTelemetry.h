#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "Keel/OS/Threading.h"
#include "Keel/Utils/TreeContainer.h"
#include "Tarn/Comm/IReport.h"
#include "manager/writer/Settings.h"

namespace Tarn::Storage::Telemetry {

// What the writer reports about one block it has written.
struct EventBlockData {
  uint16_t day = 0;
  uint32_t raw_size = 0;     // bytes of the encoded events before compression
  uint32_t stored_size = 0;  // bytes of the compressed payload, without its frame
  uint32_t events_count = 0;
  uint32_t reason = 0;  // the hand-over reason, see ReasonName
};

// What the writer's worker was woken up with; logged, never counted.
struct WorkerTaskData {
  uint32_t day = 0;
  uint32_t reason = 0;
  uint32_t events_count = 0;
  uint32_t raw_size = 0;
  uint32_t pending_bytes = 0;
};

// Hand-over reasons: 0 "on_init", 1 "on_event", 2 "on_close", else "unknown".
const char* ReasonName(uint32_t reason);

// Whoever owns the store adds its own part to a report (the manager adds
// "disk_size_mb"). Called without the collector's lock held, so it may call
// back into the collector.
class ReportContributor {
 public:
  virtual bool AddTelemetry(Keel::Utils::TreeContainer::Node root) = 0;

 protected:
  ~ReportContributor() = default;
};

// The averages the collector keeps, in report order.
enum AverageId : uint32_t {
  kCompressionMs = 0,
  kUncompressionMs,
  kProcessingMs,
  kBlockEvents,
  kBlockCompressedBytes,
  kBlockRawBytes,
  kBlockEncryptedBytes,
  kDumpIntervalMs,
  kAverageCount,
};

// A plain mean since the collector started.
struct Average {
  uint64_t sum = 0;
  uint32_t count = 0;

  void Add(uint64_t sample);
  double Value() const { return count == 0 ? 0.0 : static_cast<double>(sum) / count; }
};

// Collects counters and timings of the event store and turns them into a
// report. Notifications may come from any thread: each takes the lock.
class StorageTelemetry {
 public:
  using Sink = bool (StorageTelemetry::*)(Keel::Utils::TreeContainer&);

  // Event types 0..1023 are counted; see counters_ for type 1024.
  static constexpr uint32_t kEventTypes = 1024;
  static constexpr uint32_t kReportVersion = 1;
  // Bytes framing each stored block on disk (its header).
  static constexpr uint32_t kBlockFrameBytes = 12;
  // Gates of ready_to_send.
  static constexpr uint64_t kMaxReportIntervalMs = 604'800'000;  // 7 days
  static constexpr uint32_t kBlocksPerReport = 28;
  static constexpr uint32_t kEventsPerReport = 512'000;

  // Everything a report is built from, read under the lock at one instant.
  struct Snapshot {
    uint32_t version = 0;
    uint64_t init_started = 0;
    uint64_t init_ended = 0;
    uint64_t uninit_started = 0;
    uint64_t uninit_ended = 0;
    Average averages[kAverageCount];
    uint32_t blocks_count = 0;
    uint32_t discarded_blocks_count = 0;
    uint32_t cache_miss_count = 0;
    uint32_t unreachable_reached_count = 0;
    uint64_t events_count = 0;  // types 0..1023
    uint32_t clock_refused_events_count = 0;
    uint32_t files_set_aside_count = 0;
    uint64_t last_sent = 0;
    uint32_t pending_events = 0;  // first gating number
    uint32_t pending_blocks = 0;  // second gating number
  };

  StorageTelemetry();
  StorageTelemetry(const StorageTelemetry&) = delete;
  StorageTelemetry& operator=(const StorageTelemetry&) = delete;

  // Binds the report channel (may be null until update_report_builder), the
  // directory for to_disk and the part of the report the owner adds (may be
  // null). Starts the report interval. Fails (logged) on an empty directory.
  bool create(Settings& settings, Comm::Interfaces::IReport* report, std::string directory,
              ReportContributor* contributor);

  void notify_init_started();
  void notify_init_ended(std::optional<bool>& ok);
  void notify_closing_started();
  void notify_closing_ended(std::optional<bool>& ok);
  void notify_compression_started();
  void notify_compression_ended(std::optional<bool>& ok);
  void notify_uncompression_started();
  void notify_uncompression_ended(std::optional<bool>& ok);
  void notify_buffer_processing_start();
  void notify_buffer_processing_ended(std::optional<EventBlockData>& block);
  // A block was handed to the writer for `reason`; every hand-over after the
  // first adds the time since the previous one to the dump-interval average.
  void notify_block_dumped(uint32_t reason);
  void notify_on_event(uint32_t type);
  void notify_cache_miss();
  void notify_events_buffer_discarded();
  void notify_worker_triggered(WorkerTaskData&& task);
  void unreachable_reached();
  // An event refused because the clock read a time the store cannot file
  // (before 2000, or past the last day a day number holds).
  void notify_clock_refused();
  // A store file that kept failing to read was moved aside.
  void notify_file_set_aside();

  bool ready_to_send(TelemetrySettings settings, bool force);
  // When a report is due, sends it to the cloud channel; once it is sent the
  // gates start again. An unsent report stays due and is tried next time.
  bool send_to_cloud(TelemetrySettings settings, bool force);

  bool report(Sink sink, ReportContributor& contributor);
  // "<directory>/telemetry.<20-digit ms>.json".
  bool to_disk(Keel::Utils::TreeContainer& doc);
  bool to_cloud(Keel::Utils::TreeContainer& doc);
  bool to_repo(Keel::Utils::TreeContainer& doc);

  void update_report_builder(Comm::Interfaces::IReport* report);

  // Read-only views for tests and tools.
  Snapshot snapshot() const;
  // The counter of one type, 0..1024; 0 for anything larger.
  uint64_t event_count(uint32_t type) const;
  const std::string& directory() const { return directory_; }

  // Names under which the collector reports.
  static constexpr const char* kCloudEvent = "tarn_storage_telemetry";
  static constexpr const char* kCloudEventDescription =
      "Event used to report telemetry of libtarn_storage module";
  static constexpr const char* kReportName = "storage.telemetry";

 private:
  // Start, end and outcome of one timed operation. Each timed average has its
  // own, because processing a block encloses compressing it.
  struct Timing {
    uint64_t start = 0;
    uint64_t end = 0;
    bool ok = false;
  };

  // Slot of counters_ that holds init_started; see counters_.
  static constexpr uint32_t kInitStartedSlot = kEventTypes;

  uint64_t& init_started() { return counters_[kInitStartedSlot]; }
  void EndTimed(Timing& timing, std::optional<bool>& ok, AverageId average);
  bool Send(const char* name, Keel::Utils::TreeContainer& doc);
  static bool AddFields(Keel::Utils::TreeContainer::Node root, const Snapshot& s, uint64_t now);

  uint32_t version_ = kReportVersion;
  // Counters of event types 0..1023 followed by the initialisation start: one
  // array, so that counting type 1024 lands on init_started (moving it one
  // millisecond later) by plain, well-defined indexing. Reports sum only the
  // first 1024 slots.
  uint64_t counters_[kEventTypes + 1] = {};
  uint64_t init_ended_ = 0;
  uint64_t uninit_started_ = 0;
  uint64_t uninit_ended_ = 0;
  Average averages_[kAverageCount];
  uint32_t blocks_count_ = 0;
  uint32_t discarded_blocks_count_ = 0;
  uint32_t cache_miss_count_ = 0;
  uint32_t unreachable_reached_count_ = 0;
  uint32_t clock_refused_events_count_ = 0;
  uint32_t files_set_aside_count_ = 0;
  Timing compression_;
  Timing uncompression_;
  Timing processing_;
  uint64_t last_dump_ = 0;  // time of the previous block hand-over, 0: none yet
  uint64_t last_sent_ = 0;
  uint32_t pending_events_ = 0;  // events stored since the last report sent
  uint32_t pending_blocks_ = 0;  // blocks written since the last report sent
  mutable Keel::OS::Threading::Mutex mutex_;

  std::atomic<Comm::Interfaces::IReport*> report_{nullptr};
  std::string directory_;
  ReportContributor* contributor_ = nullptr;
};

}  // namespace Tarn::Storage::Telemetry
