#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Keel/OS/File.h"
#include "manager/index/DayInfo.h"
#include "manager/writer/Settings.h"

namespace Tarn::Storage {

class Index;
namespace Telemetry {
class StorageTelemetry;
}

// The store as files on disk: which day files exist, how many bytes they
// hold, where the next block of a day goes, and which file goes when a limit
// is reached. It keeps the index and the files in agreement; the manager
// calls it with the manager mutex held.
//
// Three kinds of file are not read by the store although they count toward
// the size budget, and eviction deletes them first:
// - set-aside files: store files that kept failing to read (their name with
//   ".unreadable" added); only the recover tool reads them again;
// - loose day files: day files no index entry names (the index was lost, or
//   an evicted day's file could not be deleted). They are deleted before
//   any younger indexed day.
// Two kinds of unnamed day file are read instead, because they hold blocks
// that were written whole and only the index save after them was lost: a
// file of a day newer than every indexed day (when the index itself was
// read fine), and a file of the day the writer is about to append to.
//
// The index never holds a day without blocks: a new day enters it with its
// first recorded block, and a day whose blocks all went leaves it.
class StoreCatalog {
 public:
  struct LooseFile {
    uint16_t day;
    uint8_t version;
    uint64_t size;
  };
  struct AsideFile {
    std::string name;  // as it lies in the directory, suffix included
    uint64_t size;     // 0 while it cannot be sized
  };

  // kDrop: the block can never be stored (empty, larger than the whole
  // budget, or past what the index can address). kFail: a file operation
  // failed; the same block may fit later.
  enum class Placement { kCreated = 0, kAppend = 1, kDrop = 2, kFail = 3 };

  explicit StoreCatalog(Index& index);

  void SetDirectory(std::string directory) { directory_ = std::move(directory); }
  void SetTelemetry(Telemetry::StorageTelemetry* telemetry) { telemetry_ = telemetry; }
  const std::string& directory() const { return directory_; }
  std::string PathOf(const std::string& name) const;
  std::string DayFilePath(uint16_t day, uint8_t version) const;

  // Moves on whenever a block the index named leaves it or its file is
  // replaced, so that a key (day, block) may name another block afterwards.
  // Readable without the manager mutex.
  uint64_t Generation() const { return generation_.load(std::memory_order_acquire); }

  // Bytes of every day file, indexed, loose or set aside.
  uint64_t TotalSize() const { return indexed_size_ + loose_size_ + aside_size_; }
  uint64_t IndexedSize() const { return indexed_size_; }
  const std::vector<LooseFile>& LooseFiles() const { return loose_; }
  const std::vector<AsideFile>& AsideFiles() const { return aside_; }

  // Start-up, before the index is loaded: lists the directory (a listing
  // that fails twice is done without: the files the index names are then
  // looked up by name, and unnamed ones wait for the next start).
  void Survey();
  // Set-aside index files found by the survey, oldest first.
  std::vector<std::string> AsideIndexes() const;

  // Start-up: makes the index name only blocks that lie whole on disk, puts
  // back whole blocks written after the last index save or lost from the
  // index, cuts torn tails, sets aside files whose size cannot be read and
  // lists the loose files. `index_was_read` says the index came from its
  // file: only then can a file of a newer day be told from one whose index
  // was lost. `changed` is set when the index changed.
  void Reconcile(bool index_was_read, bool& changed);

  // Evicts oldest first while the index holds more than `max_days` days or
  // the store more than `max_storage_size` bytes. `current_day` is never
  // evicted.
  void EnforceLimits(const Settings& settings, uint16_t current_day);

  // Decides where a block of `size` bytes for `day` goes and opens `file`
  // there. The block's offset is the version's on-disk size.
  Placement PlaceBlock(const Settings& settings, uint16_t day, uint64_t size, Keel::OS::File& file,
                       uint64_t& offset);
  // Records a block that was written and flushed whole.
  bool RecordBlock(uint16_t day, const BlockInfo& block, uint64_t on_disk_size);
  // Takes back a placement whose write failed: the file is cut back to
  // `offset` (a failed cut is found by the next placement, which finds the
  // file longer than the index knows), and a day that got no block stays out
  // of the index, its file loose.
  void AbandonBlock(uint16_t day, Keel::OS::File& file, uint64_t offset);

  // Frees room: deletes a set-aside file, else the oldest loose file that is
  // not younger than the oldest evictable day, else evicts that day. A file
  // that cannot be deleted is passed over (and retried next time). False
  // when nothing could be removed.
  bool EvictOldest(uint16_t current_day);
  // Takes the oldest evictable day out of the index (for the day limit),
  // with the loose files that are not younger. False when there is none.
  bool EvictOldestDay(uint16_t current_day);

  // Moves the store file `name` aside (see above), counts and logs it. False
  // when it could not be moved.
  bool SetAside(const std::string& name);

  // Deletes every store file, the index file and the shutdown file, and
  // empties the index. A file that will not go is set aside (a day file
  // that cannot even be moved stays loose), counted, and goes first when
  // room is needed: the store goes on. False when any would not go.
  bool Wipe();

 private:
  Placement OpenVersionForWriting(uint16_t day, DayInfo& info, Keel::OS::File& file);
  Placement ReplaceUnusableFile(uint16_t day, DayInfo& info, Keel::OS::File& file);
  Placement ReplaceUnreadableFile(uint16_t day, DayInfo& info, Keel::OS::File& file);
  bool MakeRoomForDay(const Settings& settings, uint16_t day);
  bool BlockLimitReached(uint16_t day, DayInfo* info);
  // The oldest indexed day other than `current_day`, or null (logged). The
  // day being written never goes; when the clock went back to before every
  // stored day it is the oldest, and the next one goes in its place, so that
  // the limits still hold.
  DayInfo* OldestEvictableDay(uint16_t current_day, uint16_t& day);
  bool EvictAside();
  // Sizes set-aside files that could not be sized when they went aside.
  void RefreshAsideSizes();
  // The names of the day files the index names.
  void AppendIndexedFileNames(std::vector<std::string>& names);
  bool EvictLoose(size_t which);
  void EvictIndexedDay(uint16_t day, DayInfo& info);
  void ForgetLooseFile(uint16_t day, uint8_t version);
  void AddLooseFile(uint16_t day, uint8_t version, uint64_t size);
  // A new day lives here until its first block is recorded.
  DayInfo* NewDay(uint16_t day);
  void ReleaseNewDay(uint16_t day);

  // Reconciliation steps.
  void SizeDayFiles();
  void ReconcileDay(uint16_t day, DayInfo& info, bool& changed);
  bool AdoptNewerDay(const LooseFile& file);
  // Makes the blocks of `version` that the index names agree with the file
  // the reader has open (see StoreReconcile.cpp). Returns where the next
  // block of the file goes, or 0 when a read failed or a torn tail could not
  // be cut: nothing in the index or the file was changed then.
  uint64_t AlignVersion(uint16_t day, DayInfo& info, uint8_t version,
                        class DayFileReader& reader, bool& changed);
  // Writes a fresh header over the damaged one of a file in which a block
  // the index names is whole.
  void RepairHeader(uint16_t day, const DayInfo& info, uint8_t version, class DayFileReader& reader,
                    const std::string& path);

  void NextGeneration() { generation_.fetch_add(1, std::memory_order_acq_rel); }

  Index& index_;
  Telemetry::StorageTelemetry* telemetry_ = nullptr;
  std::atomic<uint64_t> generation_{0};
  std::string directory_;
  uint64_t indexed_size_ = 0;
  uint64_t loose_size_ = 0;
  uint64_t aside_size_ = 0;
  std::vector<LooseFile> loose_;
  std::vector<AsideFile> aside_;
  // What the start-up survey found: names in the directory, or none when
  // it could not be listed.
  bool listed_ = false;
  std::vector<std::string> names_;
  std::vector<LooseFile> day_files_;
  // A day placed but not yet holding a recorded block.
  bool has_new_day_ = false;
  uint16_t new_day_ = 0;
  DayInfo new_day_info_;
};

}  // namespace Tarn::Storage
