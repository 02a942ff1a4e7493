#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

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
  // block the previous run left behind. False when the store cannot run:
  // no directory, no lock, no memory. No file of the store that fails to
  // read stops it: such a file is set aside and storing goes on.
  bool Create(const Settings& settings, ITimeProvider* clock, uint32_t host_value,
              const char* directory_override);

  // Appends one event record to the open block. False when refused: not
  // running, a bad record, one too large for a block, or a clock reading the
  // store cannot file (before 2000, or past day 65535).
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
  //
  // Within a day the writer never records a second below one it recorded
  // before for that day, in this run or an earlier one: a clock that steps
  // back files its events at the last second recorded (each event keeps
  // its own time in its record), so that a day's blocks, and the entries
  // inside each, stay in order of their seconds.
  struct Builder {
    Keel::OS::Threading::Mutex mutex;
    BlockBuffers block;
    bool ready = false;
    bool has_day = false;  // false until the clock read a time the store can file
    uint16_t day = 0;
    uint32_t floor = 0;  // the last second recorded for `day`
    uint32_t capacity = 0;
    // The last block handed over, which the index may not hold yet.
    bool handed = false;
    uint16_t handed_day = 0;
    uint32_t handed_last_second = 0;
  };

  bool OpenDirectory(const char* directory_override);
  bool LockDirectory();
  // Loads the index; one that exists and does not read twice is set aside,
  // never saved over, and set-aside indexes that read now are merged.
  bool LoadIndex();
  void MergeAsideIndexes();
  bool LoadDatabases();
  bool StartWriter();
  // Stores the block the previous run left in the shutdown file. Whatever
  // fails, the store starts: a file that cannot be read goes aside, and a
  // block that cannot be stored now stays for the next start.
  void TakeBackFinalBlock();
  // True when a block of `day` holds exactly these records: an earlier start
  // took the shutdown block back but did not get to delete its file.
  bool AlreadyStored(uint16_t day, const Keel::Collections::Buffer& raw, uint32_t table_offset,
                     uint32_t count);
  void DeleteFinalFile();
  // Requires the manager mutex.
  bool SaveIndex();
  bool NoBlockLostSinceLastAsked();

  // Reads the clock; false (logged, counted) for a time the store cannot file.
  bool Now(TimeIndex& now);
  // The last second recorded for `day`. Requires the builder mutex.
  uint32_t DayFloor(uint16_t day);
  // Requires the builder mutex.
  void StartDay(uint16_t day);
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
  // The previous run's shutdown block is still in its file, not stored: the
  // stop then writes the open block to its day file instead, so that the
  // waiting block is not overwritten.
  std::atomic<bool> final_pending_{false};
  // Started without a usable index while day files existed (guarded by the
  // manager mutex).
  bool index_lost_ = false;
  // Set-aside index files merged at start, deleted once the index is saved.
  std::vector<std::string> merged_indexes_;

  // The block being written, owned by the writer between hand-overs.
  BlockBuffers pending_;
  uint16_t pending_day_ = 0;
  HandOverReason pending_reason_ = kOnEvent;
  bool pending_in_burst_ = false;  // the hand-over had to wait for the writer
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
