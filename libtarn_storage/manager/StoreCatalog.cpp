#include "manager/StoreCatalog.h"

#include <algorithm>

#include "Keel/Log.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"
#include "manager/DayFile.h"
#include "manager/FinalFile.h"
#include "manager/Index.h"
#include "manager/StorageHelper.h"

namespace Tarn::Storage {
namespace {

namespace FS = Keel::OS::FileSystem;

enum Message : uint32_t {
  kBlockEmptyOrTooLarge = 1,
  kNewDay = 2,
  kDayLimitEvictionFailed = 3,
  kDayCreateFailed = 4,
  kDayInsertFailed = 5,
  kDayFileUnusable = 6,
  kDayFileCreateFailed = 7,
  kNoDayToEvict = 8,
  kCurrentDayNotEvicted = 9,
  kDeleteFailed = 10,
  kEvicted = 11,
  kLooseEvicted = 12,
  kRecordUnknownDay = 13,
  kFilePastAddressableSize = 14,
  kTornTailCut = 15,
  kTruncateFailed = 16,
  kWipeListFailed = 17,
};

void Log(uint32_t severity, Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(severity, Keel::Log::StorageManager, 100 + message, a, b, c);
}

// Block offsets are 32-bit in the index.
constexpr uint64_t kMaxDayFileSize = 0xFFFFFFFFull;

}  // namespace

StoreCatalog::StoreCatalog(Index& index) : index_(index) {}

std::string StoreCatalog::PathOf(const char* name) const {
  return Keel::OS::Path::Join(directory_, name);
}

std::string StoreCatalog::DayFilePath(uint16_t day, uint8_t version) const {
  return Keel::OS::Path::Join(directory_, Utils::DayFileName(day, version));
}

void StoreCatalog::EnforceLimits(const Settings& settings, uint16_t current_day) {
  while (index_.tree().GetCount() > settings.max_days || TotalSize() > settings.max_storage_size) {
    if (!EvictOldest(current_day)) break;
  }
}

StoreCatalog::Placement StoreCatalog::PlaceBlock(const Settings& settings, uint16_t day,
                                                 uint64_t size, Keel::OS::File& file,
                                                 uint64_t& offset) {
  if (size == 0 || size >= settings.max_storage_size) {
    Log(Keel::Log::Error, kBlockEmptyOrTooLarge, size, settings.max_storage_size);
    return Placement::kDrop;
  }
  bool added = false;
  DayInfo* info = FindOrAddDay(settings, day, added);
  if (info == nullptr) return Placement::kDrop;

  Placement placement = Placement::kDrop;
  if (!OpenVersionForWriting(day, *info, file, placement)) return Placement::kDrop;
  offset = info->onDiskSize(DayInfo::kInitialVersion);
  if (offset + size > kMaxDayFileSize) {
    Log(Keel::Log::Error, kFilePastAddressableSize, day, offset, size);
    file.Close();
    return Placement::kDrop;
  }
  // The current day stays even when it alone passes the budget.
  while (TotalSize() + size > settings.max_storage_size) {
    if (!EvictOldest(day)) break;
  }
  return placement;
}

DayInfo* StoreCatalog::FindOrAddDay(const Settings& settings, uint16_t day, bool& added) {
  auto& tree = index_.tree();
  added = false;
  if (DayInfo* info = tree.SearchUnsafe(day)) return info;

  Log(Keel::Log::Information, kNewDay, day);
  if (tree.GetCount() + 1 > settings.max_days && !EvictOldest(day)) {
    Log(Keel::Log::Error, kDayLimitEvictionFailed, day);
    return nullptr;
  }
  DayInfo fresh;
  if (!fresh.Create()) {
    Log(Keel::Log::Error, kDayCreateFailed, day);
    return nullptr;
  }
  if (!tree.Insert(day, std::move(fresh))) {
    Log(Keel::Log::Error, kDayInsertFailed, day);
    return nullptr;
  }
  added = true;
  return tree.SearchUnsafe(day);
}

bool StoreCatalog::OpenVersionForWriting(uint16_t day, DayInfo& info, Keel::OS::File& file,
                                         Placement& placement) {
  const uint8_t version = DayInfo::kInitialVersion;
  const std::string path = DayFilePath(day, version);
  const uint64_t known = info.onDiskSize(version);
  const bool exists = FS::Exists(path);

  if (exists) {
    uint64_t size = 0;
    if (OpenDayFileForAppend(path, file, size)) {
      if (known == 0) {
        // A loose file of this day (its index entry was lost): keep its
        // bytes and write after them.
        AdoptLooseFile(day, version);
        info.setOnDiskSize(version, size);
        indexed_size_ += size;
        placement = Placement::kAppend;
        return true;
      }
      if (size >= known) {
        // Bytes past the last recorded block are a torn write: cut them.
        if (size > known && !file.Truncate(known)) {
          Log(Keel::Log::Error, kTruncateFailed, day, known, size);
          return false;
        }
        placement = Placement::kAppend;
        return true;
      }
      // Shorter than its recorded blocks: somebody cut the file. Its blocks
      // cannot be trusted, so it starts over below.
      file.Close();
    }
    Log(Keel::Log::Warning, kDayFileUnusable, day, version, known);
    AdoptLooseFile(day, version);
    if (!FS::DeleteFile(path)) return false;
  }
  // A missing or unusable file takes the blocks recorded in it along.
  indexed_size_ -= std::min(indexed_size_, known);
  info.ClearVersion(version);
  if (!CreateDayFile(path, file)) {
    Log(Keel::Log::Error, kDayFileCreateFailed, day);
    return false;
  }
  info.setOnDiskSize(version, kDayFileHeaderSize);
  indexed_size_ += kDayFileHeaderSize;
  placement = Placement::kCreated;
  return true;
}

bool StoreCatalog::RecordBlock(uint16_t day, const BlockInfo& block, uint64_t on_disk_size) {
  DayInfo* info = index_.tree().SearchUnsafe(day);
  if (info == nullptr) {
    Log(Keel::Log::Error, kRecordUnknownDay, day);
    return false;
  }
  if (!info->AddBlock(block)) return false;
  info->addOnDiskSize(block.version, on_disk_size);
  indexed_size_ += on_disk_size;
  return true;
}

bool StoreCatalog::EvictOldest(uint16_t current_day) {
  auto& tree = index_.tree();
  uint16_t* oldest_day = nullptr;
  DayInfo* oldest = tree.GetMinUnsafe(oldest_day);

  // The oldest loose file goes first unless an indexed day is older.
  size_t loose = loose_.size();
  for (size_t i = 0; i < loose_.size(); ++i) {
    if (loose_[i].day == current_day) continue;
    if (loose == loose_.size() || loose_[i].day < loose_[loose].day) loose = i;
  }
  if (loose < loose_.size() && (oldest == nullptr || loose_[loose].day <= *oldest_day)) {
    return EvictLoose(loose);
  }
  if (oldest == nullptr) {
    Log(Keel::Log::Error, kNoDayToEvict);
    return false;
  }
  if (*oldest_day == current_day) {
    Log(Keel::Log::Warning, kCurrentDayNotEvicted, current_day);
    return false;
  }
  return EvictIndexedDay(*oldest_day, *oldest);
}

bool StoreCatalog::EvictLoose(size_t which) {
  LooseFile file = loose_[which];
  if (!FS::DeleteFile(DayFilePath(file.day, file.version))) {
    Log(Keel::Log::Error, kDeleteFailed, file.day, file.version);
    return false;
  }
  loose_.erase(loose_.begin() + static_cast<std::ptrdiff_t>(which));
  loose_size_ -= std::min(loose_size_, file.size);
  Log(Keel::Log::Information, kLooseEvicted, file.day, file.version, file.size);
  return true;
}

bool StoreCatalog::EvictIndexedDay(uint16_t day, DayInfo& info) {
  bool deleted = true;
  for (uint32_t i = 0; i < info.GetVersionCount(); ++i) {
    uint8_t version = info.GetVersion(i)->version;
    if (!FS::DeleteFile(DayFilePath(day, version))) {
      Log(Keel::Log::Error, kDeleteFailed, day, version);
      deleted = false;
    }
  }
  // A file that could not be deleted stays indexed, so its bytes still count.
  if (!deleted) return false;
  uint64_t size = info.totalOnDiskSize();
  indexed_size_ -= std::min(indexed_size_, size);
  info.ClearAll();
  index_.tree().Erase(day);
  Log(Keel::Log::Information, kEvicted, day, size);
  return true;
}

void StoreCatalog::AdoptLooseFile(uint16_t day, uint8_t version) {
  auto it = std::find_if(loose_.begin(), loose_.end(), [&](const LooseFile& f) {
    return f.day == day && f.version == version;
  });
  if (it == loose_.end()) return;
  loose_size_ -= std::min(loose_size_, it->size);
  loose_.erase(it);
}

bool StoreCatalog::Wipe() {
  std::vector<std::string> names;
  bool ok = FS::ListDirectory(directory_, names);
  if (!ok) Log(Keel::Log::Error, kWipeListFailed);
  for (const std::string& name : names) {
    uint16_t day = 0;
    uint8_t version = 0;
    bool store_file = Utils::IsStorageFile(name.c_str(), false, day, version) ||
                      name == Index::FILENAME || name == std::string(Index::FILENAME) + ".temp" ||
                      name == Utils::kFinalFileName;
    if (store_file && !FS::DeleteFile(PathOf(name.c_str()))) {
      Log(Keel::Log::Error, kDeleteFailed, day, version);
      ok = false;
    }
  }
  index_.clear();
  indexed_size_ = 0;
  loose_size_ = 0;
  loose_.clear();
  return ok;
}

}  // namespace Tarn::Storage
