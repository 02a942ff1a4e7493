#include "manager/writer/StoreCatalog.h"

#include <algorithm>

#include "Keel/Log.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"
#include "manager/format/DayFile.h"
#include "manager/format/DayFileReader.h"
#include "manager/format/FinalFile.h"
#include "manager/index/Index.h"
#include "manager/format/StorageHelper.h"

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
  kDeleteFailed = 10,
  kEvicted = 11,
  kLooseEvicted = 12,
  kRecordUnknownDay = 13,
  kFilePastAddressableSize = 14,
  kTornTailCut = 15,
  kTruncateFailed = 16,
  kWipeListFailed = 17,
  kDayFileOpenFailed = 18,
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
  while (index_.tree().GetCount() > settings.max_days) {
    if (!EvictOldestDay(current_day)) break;
  }
  while (TotalSize() > settings.max_storage_size) {
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
  if (info == nullptr) return Placement::kFail;

  Placement placement = OpenVersionForWriting(day, *info, file);
  if (placement == Placement::kFail) {
    // A new day that never got a block leaves no trace in the index.
    if (added && info->GetBlockCount() == 0) {
      indexed_size_ -= std::min(indexed_size_, info->totalOnDiskSize());
      index_.tree().Erase(day);
    }
    return placement;
  }
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
  // Only indexed days count here: deleting a loose file makes no room.
  while (tree.GetCount() + 1 > settings.max_days) {
    if (!EvictOldestDay(day)) {
      Log(Keel::Log::Error, kDayLimitEvictionFailed, day);
      return nullptr;
    }
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

StoreCatalog::Placement StoreCatalog::OpenVersionForWriting(uint16_t day, DayInfo& info,
                                                            Keel::OS::File& file) {
  const uint8_t version = DayInfo::kInitialVersion;
  const uint64_t known = info.onDiskSize(version);
  uint64_t size = 0;
  switch (OpenDayFileForAppend(DayFilePath(day, version), file, size, true)) {
    case AppendOpen::kIoError:
      // The file may be whole: keep it and its blocks, fail only this block.
      Log(Keel::Log::Error, kDayFileOpenFailed, day, version);
      return Placement::kFail;
    case AppendOpen::kBadHeader:
      return ReplaceUnusableFile(day, info, file);
    case AppendOpen::kOk:
      break;
  }
  if (size == known) return Placement::kAppend;
  if (known == 0 && size == kDayFileHeaderSize) {
    ForgetLooseFile(day, version);
    info.setOnDiskSize(version, size);
    indexed_size_ += size;
    return Placement::kCreated;
  }
  // The file holds what the index does not know of (blocks whose index save
  // was lost, a torn tail), or less than it names: make them agree first.
  DayFileReader reader;
  bool changed = false;
  if (!reader.Attach(file)) return Placement::kFail;
  ForgetLooseFile(day, version);
  const uint64_t end = AlignVersion(day, info, version, reader, changed);
  indexed_size_ -= std::min(indexed_size_, known);
  indexed_size_ += end != 0 ? end : reader.Size();
  info.setOnDiskSize(version, end != 0 ? end : reader.Size());
  return end != 0 ? Placement::kAppend : Placement::kFail;
}

StoreCatalog::Placement StoreCatalog::ReplaceUnusableFile(uint16_t day, DayInfo& info,
                                                          Keel::OS::File& file) {
  const uint8_t version = DayInfo::kInitialVersion;
  const std::string path = DayFilePath(day, version);
  // The header was read and is not a day file's: nothing in it can be read.
  Log(Keel::Log::Warning, kDayFileUnusable, day, version, info.onDiskSize(version));
  if (!FS::DeleteFile(path)) {
    Log(Keel::Log::Error, kDeleteFailed, day, version);
    return Placement::kFail;
  }
  ForgetLooseFile(day, version);
  indexed_size_ -= std::min(indexed_size_, info.onDiskSize(version));
  info.ClearVersion(version);
  NextGeneration();
  uint64_t size = 0;
  if (OpenDayFileForAppend(path, file, size, true) != AppendOpen::kOk) {
    Log(Keel::Log::Error, kDayFileCreateFailed, day);
    return Placement::kFail;
  }
  info.setOnDiskSize(version, size);
  indexed_size_ += size;
  return Placement::kCreated;
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

DayInfo* StoreCatalog::OldestEvictableDay(uint16_t current_day, uint16_t& day) {
  DayInfo* found = nullptr;
  index_.tree().Iterate(
      [&](const uint16_t& key, DayInfo& info, void*, bool& stop) {
        if (key == current_day) return true;
        found = &info;
        day = key;
        stop = true;
        return true;
      },
      nullptr);
  if (found == nullptr) Log(Keel::Log::Warning, kNoDayToEvict, current_day);
  return found;
}

bool StoreCatalog::EvictOldest(uint16_t current_day) {
  uint16_t oldest_day = 0;
  DayInfo* oldest = OldestEvictableDay(current_day, oldest_day);
  // Loose files oldest first; one that will not go is passed over.
  std::vector<size_t> order;
  for (size_t i = 0; i < loose_.size(); ++i) {
    if (loose_[i].day != current_day) order.push_back(i);
  }
  std::sort(order.begin(), order.end(),
            [this](size_t a, size_t b) { return loose_[a].day < loose_[b].day; });
  for (size_t i : order) {
    if (oldest != nullptr && loose_[i].day > oldest_day) break;
    if (EvictLoose(i)) return true;
  }
  if (oldest == nullptr) return false;
  EvictIndexedDay(oldest_day, *oldest);
  return true;
}

bool StoreCatalog::EvictOldestDay(uint16_t current_day) {
  uint16_t day = 0;
  DayInfo* oldest = OldestEvictableDay(current_day, day);
  if (oldest == nullptr) return false;
  // Loose files of that day or before are past the kept window as well.
  for (size_t i = loose_.size(); i-- > 0;) {
    if (loose_[i].day <= day) EvictLoose(i);
  }
  EvictIndexedDay(day, *oldest);
  return true;
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

void StoreCatalog::EvictIndexedDay(uint16_t day, DayInfo& info) {
  const uint64_t size = info.totalOnDiskSize();
  std::vector<LooseFile> files;
  for (uint32_t i = 0; i < info.GetVersionCount(); ++i) {
    const VersionInfo* version = info.GetVersion(i);
    files.push_back({day, version->version, version->on_disk_size});
  }
  indexed_size_ -= std::min(indexed_size_, size);
  info.ClearAll();
  index_.tree().Erase(day);
  NextGeneration();
  // The index file stops naming the day before its files go: a crash between
  // the two leaves files that nothing names (deleted later), never an index
  // that names missing files.
  const bool saved = index_.save(index_.last_event_timestamp());
  for (const LooseFile& file : files) {
    if (saved && FS::DeleteFile(DayFilePath(day, file.version))) continue;
    // The day leaves the index all the same, so that storage goes on; the
    // file stays loose, keeps counting toward the budget and is retried.
    Log(Keel::Log::Error, kDeleteFailed, day, file.version, saved);
    loose_.push_back(file);
    loose_size_ += file.size;
  }
  Log(Keel::Log::Information, kEvicted, day, size);
}

void StoreCatalog::ForgetLooseFile(uint16_t day, uint8_t version) {
  auto it = std::find_if(loose_.begin(), loose_.end(), [&](const LooseFile& f) {
    return f.day == day && f.version == version;
  });
  if (it == loose_.end()) return;
  loose_size_ -= std::min(loose_size_, it->size);
  loose_.erase(it);
}

bool StoreCatalog::Wipe() {
  std::vector<std::string> names;
  if (!FS::ListDirectory(directory_, names)) {
    Log(Keel::Log::Error, kWipeListFailed);
    return false;
  }
  // The index goes first, so that no crash leaves it naming deleted files.
  std::stable_partition(names.begin(), names.end(),
                        [](const std::string& name) { return name == Index::FILENAME; });
  bool ok = true;
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
  // A partial wipe fails the start: files left behind would be neither
  // indexed nor counted.
  index_.clear();
  NextGeneration();
  indexed_size_ = 0;
  loose_size_ = 0;
  loose_.clear();
  return ok;
}

}  // namespace Tarn::Storage
