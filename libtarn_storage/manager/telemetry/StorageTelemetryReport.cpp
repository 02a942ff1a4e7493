// Building the telemetry report and handing it to its sinks.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "Keel/Log.h"
#include "Keel/OS/File.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"
#include "Keel/OS/Time.h"
#include "manager/telemetry/StorageTelemetry.h"

namespace Tarn::Storage::Telemetry {
namespace {

using Keel::OS::Threading::MutexGuard;
using Keel::Utils::TreeContainer;

// Message identifiers of this file; StorageTelemetry.cpp uses those below 20.
enum Message : uint32_t {
  kNoSink = 20,
  kPrepareFailed = 21,
  kContributorFailed = 22,
  kFieldFailed = 23,
  kDumpFailed = 24,
  kNoDirectory = 25,
  kWriteFailed = 26,
  kNoReportChannel = 27,
  kSendFailed = 28,
};

void LogError(Message message, uint64_t a = 0, uint64_t b = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageTelemetry, message, a, b, 0);
}

// Durations never wrap: an end before its start (or no end) reads as 0.
uint64_t Since(uint64_t start, uint64_t end) { return end > start ? end - start : 0; }

// Adds nothing; reports built without an owner carry only the collector's part.
class NoContribution final : public ReportContributor {
 public:
  bool AddTelemetry(TreeContainer::Node) override { return true; }
};

}  // namespace

bool StorageTelemetry::AddFields(TreeContainer::Node root, const Snapshot& s, uint64_t now) {
  static constexpr const char* kAverageKeys[kAverageCount] = {
      "compression_duration_avg_ms",     "uncompression_duration_avg_ms",
      "process_duration_avg_ms",         "block_events_count_avg",
      "block_compressed_size_avg_bytes", "block_raw_size_avg_bytes",
      "block_encrypted_size_avg_bytes",  "block_dump_occurence_avg_ms",
  };
  // The field number in the log record tells which addition failed.
  uint32_t field = 0;
  auto fail = [&field]() {
    LogError(kFieldFailed, field);
    return false;
  };
  uint64_t uptime = s.init_started == 0 ? 0 : Since(s.init_started, now);
  const struct {
    const char* key;
    uint64_t value;
  } leading[] = {
      {"version", s.version},
      {"init_duration_ms", Since(s.init_started, s.init_ended)},
      {"uninit_duration_ms", Since(s.uninit_started, s.uninit_ended)},
      {"uptime_ms", uptime},
  };
  for (const auto& f : leading) {
    if (!root.Set(f.key, f.value)) return fail();
    ++field;
  }
  for (uint32_t i = 0; i < kAverageCount; ++i) {
    if (!root.Set(kAverageKeys[i], s.averages[i].Value())) return fail();
    ++field;
  }
  const struct {
    const char* key;
    uint64_t value;
  } trailing[] = {
      {"blocks_count", s.blocks_count},
      {"discarded_blocks_count", s.discarded_blocks_count},
      {"cache_miss_count", s.cache_miss_count},
      {"unreachable_reached_count", s.unreachable_reached_count},
      {"events_count", s.events_count},
      {"clock_refused_events_count", s.clock_refused_events_count},
      {"files_set_aside_count", s.files_set_aside_count},
  };
  for (const auto& f : trailing) {
    if (!root.Set(f.key, f.value)) return fail();
    ++field;
  }
  return true;
}

bool StorageTelemetry::report(Sink sink, ReportContributor& contributor) {
  if (sink == nullptr) {
    LogError(kNoSink);
    return false;
  }
  TreeContainer doc;
  TreeContainer::Node root = doc.Root();
  if (!root.IsValid() || !root.SetObject()) {
    LogError(kPrepareFailed);
    return false;
  }
  // Read everything first: the owner's part runs without our lock, since it
  // may well notify us while it gathers its numbers.
  Snapshot s = snapshot();
  uint64_t now = Keel::OS::Time::GetSystemTime();
  if (!contributor.AddTelemetry(root)) {
    LogError(kContributorFailed);
    return false;
  }
  if (!AddFields(root, s, now)) return false;
  return (this->*sink)(doc);
}

bool StorageTelemetry::send_to_cloud(TelemetrySettings settings, bool force) {
  if (!ready_to_send(settings, force)) return false;
  Snapshot before = snapshot();
  NoContribution none;
  ReportContributor& contributor = contributor_ != nullptr ? *contributor_ : none;
  if (!report(&StorageTelemetry::to_cloud, contributor)) return false;
  // Take off what the report covered; whatever arrived while it was being
  // sent stays pending for the next one.
  MutexGuard lock(&mutex_);
  pending_events_ -= before.pending_events <= pending_events_ ? before.pending_events : 0;
  pending_blocks_ -= before.pending_blocks <= pending_blocks_ ? before.pending_blocks : 0;
  last_sent_ = Keel::OS::Time::GetSystemTime();
  return true;
}

bool StorageTelemetry::to_disk(TreeContainer& doc) {
  if (directory_.empty()) {
    LogError(kNoDirectory);
    return false;
  }
  char name[64];
  std::snprintf(name, sizeof(name), "telemetry.%020" PRIu64 ".json",
                Keel::OS::Time::GetSystemTime());
  std::string path = Keel::OS::Path::Join(directory_, name);
  std::string text = doc.Dump(2);
  if (text.empty()) {
    LogError(kDumpFailed);
    return false;
  }
  text.push_back('\n');
  // Written aside and renamed into place, as every file of the store is: a
  // report under its name is always whole.
  const std::string temp = path + ".temp";
  Keel::OS::File file;
  bool ok = file.Open(temp, Keel::OS::File::Mode::CreateTruncate) &&
            file.Write(text.data(), text.size()) && file.Flush();
  ok = file.Close() && ok;
  if (!ok || !Keel::OS::FileSystem::MoveFile(temp, path)) {
    LogError(kWriteFailed, ok ? Keel::OS::FileSystem::LastError() : file.LastError());
    Keel::OS::FileSystem::DeleteFile(temp);
    return false;
  }
  return true;
}

bool StorageTelemetry::Send(const char* name, TreeContainer& doc) {
  Comm::Interfaces::IReport* channel = report_.load(std::memory_order_acquire);
  if (channel == nullptr) {
    LogError(kNoReportChannel);
    return false;
  }
  std::string text = doc.Dump();
  if (text.empty()) {
    LogError(kDumpFailed);
    return false;
  }
  if (!channel->Send(name, text.c_str())) {
    LogError(kSendFailed);
    return false;
  }
  return true;
}

bool StorageTelemetry::to_cloud(TreeContainer& doc) { return Send(kCloudEvent, doc); }

bool StorageTelemetry::to_repo(TreeContainer& doc) { return Send(kReportName, doc); }

}  // namespace Tarn::Storage::Telemetry
