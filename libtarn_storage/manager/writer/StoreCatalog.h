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

// The store as files on disk: which day files exist, how many bytes they
// hold, where the next block of a day goes, and which day is evicted when a
// limit is reached. It keeps the index and the files in agreement; the
// manager calls it with the manager mutex held.
//
// Day files that no index entry names ("loose" files: left when the index was
// lost, or when an evicted day's file could not be deleted) are not read at
// start; their bytes count toward the size budget and eviction removes them
// before any younger indexed day, retrying a failed delete each time. Two
// kinds of unnamed file are read instead, because they hold blocks that were
// written whole and only the index save after them was lost: a file of a day
// newer than every indexed day (when the index itself was read fine), and a
// file of the day the writer is about to append to.
class StoreCatalog {
 public:
  struct LooseFile {
    uint16_t day;
    uint8_t version;
    uint64_t size;
  };

  // kDrop: the block can never be stored (empty, or larger than the whole
  // budget). kFail: a file operation failed; the same block may fit later.
  enum class Placement { kCreated = 0, kAppend = 1, kDrop = 2, kFail = 3 };

  explicit StoreCatalog(Index& index);

  void SetDirectory(std::string directory) { directory_ = std::move(directory); }
  const std::string& directory() const { return directory_; }
  std::string PathOf(const char* name) const;
  std::string DayFilePath(uint16_t day, uint8_t version) const;

  // Moves on whenever a block the index named leaves it or its file is
  // replaced, so that a key (day, block) may name another block afterwards.
  // Readable without the manager mutex.
  uint64_t Generation() const { return generation_.load(std::memory_order_acquire); }

  // Bytes of every day file, indexed or loose.
  uint64_t TotalSize() const { return indexed_size_ + loose_size_; }
  uint64_t IndexedSize() const { return indexed_size_; }
  const std::vector<LooseFile>& LooseFiles() const { return loose_; }

  // Start-up: makes the index name only blocks that lie whole on disk, puts
  // back complete blocks written after the last index save, cuts torn tails
  // and lists the loose files. `index_was_read` says the index came from its
  // file: only then can a file of a newer day be told from one whose index
  // was lost. False (logged) when the directory or a file's size cannot be
  // read: the store would not know what it holds. `changed` is set when the
  // index changed.
  bool Reconcile(bool index_was_read, bool& changed);

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

  // Frees room: deletes the oldest loose file that is not younger than the
  // oldest evictable day, else evicts that day. A loose file that cannot be
  // deleted is passed over (and retried next time). False when nothing could
  // be removed.
  bool EvictOldest(uint16_t current_day);
  // Takes the oldest evictable day out of the index (for the day limit),
  // with the loose files that are not younger. False when there is none.
  bool EvictOldestDay(uint16_t current_day);

  // Deletes every day file, the index file and the shutdown file, and
  // empties the index.
  bool Wipe();

 private:
  DayInfo* FindOrAddDay(const Settings& settings, uint16_t day, bool& added);
  Placement OpenVersionForWriting(uint16_t day, DayInfo& info, Keel::OS::File& file);
  Placement ReplaceUnusableFile(uint16_t day, DayInfo& info, Keel::OS::File& file);
  // The oldest indexed day other than `current_day`, or null (logged). The
  // day being written never goes; when the clock went back to before every
  // stored day it is the oldest, and the next one goes in its place, so that
  // the limits still hold.
  DayInfo* OldestEvictableDay(uint16_t current_day, uint16_t& day);
  bool EvictLoose(size_t which);
  void EvictIndexedDay(uint16_t day, DayInfo& info);
  void ForgetLooseFile(uint16_t day, uint8_t version);

  // Reconciliation steps.
  void ReconcileDay(uint16_t day, DayInfo& info, const std::vector<LooseFile>& files,
                    bool& changed);
  bool AdoptNewerDay(const LooseFile& file);
  // Makes the blocks of `version` that the index names agree with the file
  // the reader has open: drops the first that does not lie whole in it with
  // every later one, puts back whole blocks that follow the last named one,
  // and cuts a torn tail. Returns the version's size on disk, or 0 when a
  // read failed or a torn tail could not be cut: the file then cannot take
  // blocks at its end, and nothing in it was dropped or cut.
  uint64_t AlignVersion(uint16_t day, DayInfo& info, uint8_t version, class DayFileReader& reader,
                        bool& changed);

  void NextGeneration() { generation_.fetch_add(1, std::memory_order_acq_rel); }

  Index& index_;
  std::atomic<uint64_t> generation_{0};
  std::string directory_;
  uint64_t indexed_size_ = 0;
  uint64_t loose_size_ = 0;
  std::vector<LooseFile> loose_;
};

}  // namespace Tarn::Storage
