#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "Keel/OS/Threading.h"
#include "Tarn/Storage/ITimeProvider.h"
#include "manager/writer/BlockBuffers.h"
#include "manager/index/Index.h"
#include "manager/writer/Settings.h"
#include "manager/telemetry/StorageTelemetry.h"
#include "manager/writer/StoreCatalog.h"
#include "manager/index/TimeIndex.h"

namespace Tarn::Events::Objects {
class Base;
}

namespace Tarn::Storage {

// The writer of the event store. Host threads append events to the open
// block; a full block (or the first event of a new day) is handed to the
// writer thread, which compresses it and appends it to the day's file, then
// records it in the index and saves the index.
//
// Lock order: builder mutex, then manager mutex, then the index's and each
// DayInfo's own mutexes. The telemetry mutex is a leaf. Readers reach the
// index only through ProcessIndex, under the manager mutex.
class StorageManager final : public Telemetry::ReportContributor {
 public:
  using Processor = bool (*)(Index& index, void* context);

  // Longest an intake call waits for the writer before it drops the block.
  static constexpr uint32_t kHandOverTimeoutMs = 30'000;
  static constexpr const char* kLockFileName = "storage.lock";
  static constexpr const char* kDefaultDirectory = "${P}/storage/";

  StorageManager();
  ~StorageManager();
  StorageManager(const StorageManager&) = delete;
  StorageManager& operator=(const StorageManager&) = delete;

  // Opens the store in `directory_override` (or the default directory),
  // loads and reconciles the index, starts the writer and takes back the
  // block the previous run left behind. False when the store cannot run.
  bool Create(const Settings& settings, ITimeProvider* clock, uint32_t host_value,
              const char* directory_override);

  // Appends one event record to the open block. False when refused.
  bool AddEvent(const Events::Objects::Base& event);

  // Hands the open block over and waits until the writer is idle, so every
  // event accepted before the call is on disk and indexed after it. False
  // when a block of events accepted since the last Flush (or Stop) was lost
  // (a failed write, a block too large for the budget, a hand-over that
  // timed out) or this one could not be handed over.
  bool Flush();

  // Ends intake, leaves the open block in the shutdown file and stops the
  // writer thread. False, as with Flush, when a block was lost.
  bool Stop();

  Settings GetSettings();
  bool UpdateSettings(const Settings& settings);

  // Runs a reader's processor against the index under the manager mutex.
  bool ProcessIndex(Processor processor, void* context);

  // Writes the index as the "index.json" document to `path`.
  bool DumpTo(const std::string& path);

  const std::string& Directory() const { return catalog_.directory(); }
  uint64_t TotalOnDiskSize();
  // See StoreCatalog::Generation: the reader's cache keys on it.
  uint64_t Generation() const { return catalog_.Generation(); }
  bool IsRunning() const { return running_.load(); }
  Telemetry::StorageTelemetry& telemetry() { return telemetry_; }

  // Adds "disk_size_mb" to a telemetry report.
  bool AddTelemetry(Keel::Utils::TreeContainer::Node root) override;

 private:
  // The intake side: the block being filled and the day it belongs to.
  struct Builder {
    Keel::OS::Threading::Mutex mutex;
    BlockBuffers block;
    bool ready = false;
    uint16_t day = 0;
    uint32_t capacity = 0;
  };

  bool OpenDirectory(const char* directory_override);
  bool LockDirectory();
  bool LoadDatabases();
  bool StartWriter();
  // Stores the block the previous run left in the shutdown file. False when
  // it cannot be read or stored now: the file then stays for the next start.
  bool TakeBackFinalBlock();
  // True when the day's last block holds exactly `raw`: the previous start
  // took the shutdown block back but did not get to delete its file.
  bool AlreadyStored(uint16_t day, const Keel::Collections::Buffer& raw);
  void DeleteFinalFile();
  // Requires the manager mutex.
  bool SaveIndex();
  bool NoBlockLostSinceLastAsked();

  TimeIndex Now();
  bool Append(const uint8_t* record, uint32_t size, uint32_t second);
  // Requires the builder mutex.
  bool HandOver(HandOverReason reason, uint16_t day);

  void WriterLoop();
  bool WritePendingBlock();
  bool WriteDayBlock();
  bool WriteFinalBlock();

  Settings settings_;
  std::unique_ptr<Keel::OS::Threading::Mutex> mutex_;
  Keel::OS::Threading::Event writer_idle_;
  Keel::OS::Threading::Event block_ready_;
  std::atomic<uint32_t> stop_flag_{0};
  std::atomic<bool> running_{false};
  // Blocks whose events were accepted and then lost; Flush and Stop report
  // the ones they have not reported yet.
  std::atomic<uint64_t> lost_blocks_{0};
  std::atomic<uint64_t> lost_blocks_reported_{0};
  // Started without a usable index while day files existed (guarded by the
  // manager mutex).
  bool index_lost_ = false;

  // The block being written, owned by the writer between hand-overs.
  BlockBuffers pending_;
  uint16_t pending_day_ = 0;
  HandOverReason pending_reason_ = kOnEvent;
  Keel::Collections::Buffer compressed_;

  Builder builder_;
  Index index_;
  StoreCatalog catalog_;
  Telemetry::StorageTelemetry telemetry_;
  ITimeProvider* clock_ = nullptr;
  uint32_t host_value_ = 0;
  Keel::OS::File lock_file_;
  Keel::OS::Threading::Thread writer_;
};

}  // namespace Tarn::Storage
