#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Keel/OS/File.h"
#include "manager/DayInfo.h"
#include "manager/Settings.h"

namespace Tarn::Storage {

class Index;

// The store as files on disk: which day files exist, how many bytes they
// hold, where the next block of a day goes, and which day is evicted when a
// limit is reached. It keeps the index and the files in agreement; the
// manager calls it with the manager mutex held.
//
// Day files that no index entry names ("loose" files, left when the index was
// lost) are never read or appended to; their bytes count toward the size
// budget and eviction removes them before any younger indexed day.
class StoreCatalog {
 public:
  struct LooseFile {
    uint16_t day;
    uint8_t version;
    uint64_t size;
  };

  enum class Placement { kCreated = 0, kAppend = 1, kDrop = 2 };

  explicit StoreCatalog(Index& index);

  void SetDirectory(std::string directory) { directory_ = std::move(directory); }
  const std::string& directory() const { return directory_; }
  std::string PathOf(const char* name) const;
  std::string DayFilePath(uint16_t day, uint8_t version) const;

  // Bytes of every day file, indexed or loose.
  uint64_t TotalSize() const { return indexed_size_ + loose_size_; }
  uint64_t IndexedSize() const { return indexed_size_; }
  const std::vector<LooseFile>& LooseFiles() const { return loose_; }

  // Start-up: makes the index name only blocks that lie whole on disk, puts
  // back complete blocks written after the last index save, cuts torn tails
  // and lists the loose files. True when the index changed.
  bool Reconcile();

  // Evicts oldest first while the store holds more than `max_days` days or
  // more than `max_storage_size` bytes. `current_day` is never evicted.
  void EnforceLimits(const Settings& settings, uint16_t current_day);

  // Decides where a block of `size` bytes for `day` goes and opens `file`
  // there. The block's offset is the version's on-disk size.
  Placement PlaceBlock(const Settings& settings, uint16_t day, uint64_t size, Keel::OS::File& file,
                       uint64_t& offset);

  // Records a block that was written and flushed whole.
  bool RecordBlock(uint16_t day, const BlockInfo& block, uint64_t on_disk_size);

  // Deletes the oldest day (a loose file first when it is not younger).
  bool EvictOldest(uint16_t current_day);

  // Deletes every day file, the index file and the shutdown file, and
  // empties the index.
  bool Wipe();

 private:
  DayInfo* FindOrAddDay(const Settings& settings, uint16_t day, bool& added);
  bool OpenVersionForWriting(uint16_t day, DayInfo& info, Keel::OS::File& file,
                             Placement& placement);
  bool EvictLoose(size_t which);
  bool EvictIndexedDay(uint16_t day, DayInfo& info);
  void AdoptLooseFile(uint16_t day, uint8_t version);

  // Reconciliation steps.
  void ReconcileDay(uint16_t day, DayInfo& info, const std::vector<LooseFile>& files,
                    bool& changed);
  bool ReconcileVersion(uint16_t day, DayInfo& info, uint8_t version, uint64_t file_size,
                        bool& changed);
  bool RecoverTrailingBlocks(uint16_t day, DayInfo& info, Keel::OS::File& file,
                             uint64_t& end, uint64_t file_size);

  Index& index_;
  std::string directory_;
  uint64_t indexed_size_ = 0;
  uint64_t loose_size_ = 0;
  std::vector<LooseFile> loose_;
};

}  // namespace Tarn::Storage
