#include "manager/telemetry/StorageTelemetry.h"

#include <limits>
#include <utility>

#include "Keel/Log.h"
#include "Keel/OS/Time.h"

namespace Tarn::Storage::Telemetry {
namespace {

using Keel::OS::Threading::MutexGuard;

// Message identifiers of this file; the report file uses 20 and above.
enum Message : uint32_t {
  kEmptyDirectory = 1,
  kBufferDiscarded = 2,
  kWorkerTriggered = 3,
  kBlockDumped = 4,
};

uint64_t Now() { return Keel::OS::Time::GetSystemTime(); }

// Counters stop at their limit rather than wrap back to small numbers.
void Bump(uint32_t& counter, uint32_t by = 1) {
  constexpr uint32_t kMax = std::numeric_limits<uint32_t>::max();
  counter = by > kMax - counter ? kMax : counter + by;
}

}  // namespace

const char* ReasonName(uint32_t reason) {
  switch (reason) {
    case 0:
      return "on_init";
    case 1:
      return "on_event";
    case 2:
      return "on_close";
    default:
      return "unknown";
  }
}

void Average::Add(uint64_t sample) {
  // A full count keeps the mean it has instead of skewing it.
  if (count == std::numeric_limits<uint32_t>::max()) return;
  if (sample > std::numeric_limits<uint64_t>::max() - sum) return;
  sum += sample;
  ++count;
}

StorageTelemetry::StorageTelemetry() = default;

bool StorageTelemetry::create(Settings& settings, Comm::Interfaces::IReport* report,
                              std::string directory, ReportContributor* contributor) {
  // The settings carry nothing the collector reads yet; the owner applies
  // telemetry_to_disk itself when it goes away.
  (void)settings;
  if (directory.empty()) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageTelemetry, kEmptyDirectory, 0, 0, 0);
    return false;
  }
  MutexGuard lock(&mutex_);
  report_.store(report, std::memory_order_release);
  directory_ = std::move(directory);
  contributor_ = contributor;
  // The first report is due a full interval after start, not at once.
  last_sent_ = Now();
  return true;
}

void StorageTelemetry::notify_init_started() {
  MutexGuard lock(&mutex_);
  init_started() = Now();
  init_ended_ = 0;
}

void StorageTelemetry::notify_init_ended(std::optional<bool>& ok) {
  MutexGuard lock(&mutex_);
  uint64_t now = Now();
  // A failed initialisation keeps no end, so its duration reports as 0.
  if (ok.value_or(false) && init_started() != 0) init_ended_ = now;
}

void StorageTelemetry::notify_closing_started() {
  MutexGuard lock(&mutex_);
  uninit_started_ = Now();
  uninit_ended_ = 0;
}

void StorageTelemetry::notify_closing_ended(std::optional<bool>& ok) {
  MutexGuard lock(&mutex_);
  uint64_t now = Now();
  if (ok.value_or(false) && uninit_started_ != 0) uninit_ended_ = now;
}

// Called with the lock held. An end without a start (start 0), a failure or a
// clock that did not move adds nothing; the slot is cleared in every case so
// the next end cannot pair with a stale start.
void StorageTelemetry::EndTimed(Timing& timing, std::optional<bool>& ok, AverageId average) {
  timing.end = Now();
  timing.ok = ok.value_or(false);
  if (timing.ok && timing.start != 0 && timing.end > timing.start) {
    averages_[average].Add(timing.end - timing.start);
  }
  timing = Timing{};
}

void StorageTelemetry::notify_compression_started() {
  MutexGuard lock(&mutex_);
  compression_.start = Now();
}

void StorageTelemetry::notify_compression_ended(std::optional<bool>& ok) {
  MutexGuard lock(&mutex_);
  EndTimed(compression_, ok, kCompressionMs);
}

void StorageTelemetry::notify_uncompression_started() {
  MutexGuard lock(&mutex_);
  uncompression_.start = Now();
}

void StorageTelemetry::notify_uncompression_ended(std::optional<bool>& ok) {
  MutexGuard lock(&mutex_);
  EndTimed(uncompression_, ok, kUncompressionMs);
}

void StorageTelemetry::notify_buffer_processing_start() {
  MutexGuard lock(&mutex_);
  processing_.start = Now();
}

void StorageTelemetry::notify_buffer_processing_ended(std::optional<EventBlockData>& block) {
  MutexGuard lock(&mutex_);
  std::optional<bool> written = block.has_value();
  EndTimed(processing_, written, kProcessingMs);
  if (!block.has_value()) return;
  averages_[kBlockEvents].Add(block->events_count);
  averages_[kBlockCompressedBytes].Add(block->stored_size);
  // On disk each block also carries its frame header.
  averages_[kBlockEncryptedBytes].Add(uint64_t{block->stored_size} + kBlockFrameBytes);
  averages_[kBlockRawBytes].Add(block->raw_size);
  Bump(blocks_count_);
  Bump(pending_events_, block->events_count);
  Bump(pending_blocks_);
}

void StorageTelemetry::notify_block_dumped(uint32_t reason) {
  MutexGuard lock(&mutex_);
  uint64_t now = Now();
  if (last_dump_ != 0 && now > last_dump_) averages_[kDumpIntervalMs].Add(now - last_dump_);
  last_dump_ = now;
  KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageTelemetry, kBlockDumped, reason, now, 0);
}

void StorageTelemetry::notify_on_event(uint32_t type) {
  MutexGuard lock(&mutex_);
  // Type 1024 is the init_started slot; see counters_.
  if (type <= kInitStartedSlot) ++counters_[type];
}

void StorageTelemetry::notify_cache_miss() {
  MutexGuard lock(&mutex_);
  Bump(cache_miss_count_);
}

void StorageTelemetry::notify_events_buffer_discarded() {
  MutexGuard lock(&mutex_);
  Bump(discarded_blocks_count_);
  KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageTelemetry, kBufferDiscarded,
           discarded_blocks_count_, 0, 0);
}

void StorageTelemetry::notify_worker_triggered(WorkerTaskData&& task) {
  MutexGuard lock(&mutex_);
  // Five 32-bit fields in the record's three values.
  KEEL_LOG(Keel::Log::Information, Keel::Log::StorageTelemetry, kWorkerTriggered,
           (uint64_t{task.day} << 32) | task.reason, task.events_count,
           (uint64_t{task.raw_size} << 32) | task.pending_bytes);
}

void StorageTelemetry::unreachable_reached() {
  MutexGuard lock(&mutex_);
  Bump(unreachable_reached_count_);
}

void StorageTelemetry::notify_clock_refused() {
  MutexGuard lock(&mutex_);
  Bump(clock_refused_events_count_);
}

void StorageTelemetry::notify_file_set_aside() {
  MutexGuard lock(&mutex_);
  Bump(files_set_aside_count_);
}

bool StorageTelemetry::ready_to_send(TelemetrySettings settings, bool force) {
  (void)settings;
  MutexGuard lock(&mutex_);
  if (pending_blocks_ == 0) return false;
  if (force) return true;
  uint64_t now = Now();
  if (now > last_sent_ && now - last_sent_ > kMaxReportIntervalMs) return true;
  if (pending_blocks_ >= kBlocksPerReport) return true;
  return pending_events_ >= kEventsPerReport;
}

void StorageTelemetry::update_report_builder(Comm::Interfaces::IReport* report) {
  report_.store(report, std::memory_order_release);
}

StorageTelemetry::Snapshot StorageTelemetry::snapshot() const {
  MutexGuard lock(&mutex_);
  Snapshot s;
  s.version = version_;
  s.init_started = counters_[kInitStartedSlot];
  s.init_ended = init_ended_;
  s.uninit_started = uninit_started_;
  s.uninit_ended = uninit_ended_;
  for (uint32_t i = 0; i < kAverageCount; ++i) s.averages[i] = averages_[i];
  s.blocks_count = blocks_count_;
  s.discarded_blocks_count = discarded_blocks_count_;
  s.cache_miss_count = cache_miss_count_;
  s.unreachable_reached_count = unreachable_reached_count_;
  s.clock_refused_events_count = clock_refused_events_count_;
  s.files_set_aside_count = files_set_aside_count_;
  for (uint32_t type = 0; type < kEventTypes; ++type) s.events_count += counters_[type];
  s.last_sent = last_sent_;
  s.pending_events = pending_events_;
  s.pending_blocks = pending_blocks_;
  return s;
}

uint64_t StorageTelemetry::event_count(uint32_t type) const {
  MutexGuard lock(&mutex_);
  return type <= kInitStartedSlot ? counters_[type] : 0;
}

}  // namespace Tarn::Storage::Telemetry
