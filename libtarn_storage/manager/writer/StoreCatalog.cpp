#include "manager/writer/StoreCatalog.h"

#include <algorithm>
#include <cerrno>

#include "Keel/Log.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"
#include "manager/format/DayFile.h"
#include "manager/format/DayFileReader.h"
#include "manager/format/FinalFile.h"
#include "manager/format/StorageHelper.h"
#include "manager/index/Index.h"
#include "manager/telemetry/StorageTelemetry.h"

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
  kWipeListFailed = 17,
  kDayFileOpenFailed = 18,
  kSetAside = 19,
  kSetAsideFailed = 20,
  kAsideEvicted = 21,
  kIndexFull = 22,
  kCutBackFailed = 23,
  kDayFileReplaced = 24,
};

void Log(uint32_t severity, Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(severity, Keel::Log::StorageManager, 100 + message, a, b, c);
}

// Block offsets are 32-bit in the index.
constexpr uint64_t kMaxDayFileSize = 0xFFFFFFFFull;

// Failures that say the system is short of something for a while, not that
// the file cannot be read: such a file is never set aside for them.
bool IsShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EAGAIN ||
         error == EINTR;
}

}  // namespace

StoreCatalog::StoreCatalog(Index& index) : index_(index) {}

std::string StoreCatalog::PathOf(const std::string& name) const {
  return Keel::OS::Path::Join(directory_, name);
}

std::string StoreCatalog::DayFilePath(uint16_t day, uint8_t version) const {
  return Keel::OS::Path::Join(directory_, Utils::DayFileName(day, version));
}

void StoreCatalog::EnforceLimits(const Settings& settings, uint16_t current_day) {
  RefreshAsideSizes();
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
  RefreshAsideSizes();
  DayInfo* info = index_.tree().SearchUnsafe(day);
  if (BlockLimitReached(day, info)) return Placement::kDrop;
  if (info == nullptr) {
    if (!MakeRoomForDay(settings, day)) return Placement::kFail;
    info = NewDay(day);
    if (info == nullptr) return Placement::kFail;
  }

  Placement placement = OpenVersionForWriting(day, *info, file);
  if (placement == Placement::kFail) {
    if (info == &new_day_info_) ReleaseNewDay(day);
    return placement;
  }
  offset = info->onDiskSize(DayInfo::kInitialVersion);
  if (offset + size > kMaxDayFileSize) {
    Log(Keel::Log::Error, kFilePastAddressableSize, day, offset, size);
    file.Close();
    if (info == &new_day_info_) ReleaseNewDay(day);
    return Placement::kDrop;
  }
  // The current day stays even when it alone passes the budget.
  while (TotalSize() + size > settings.max_storage_size) {
    if (!EvictOldest(day)) break;
  }
  return placement;
}

bool StoreCatalog::BlockLimitReached(uint16_t day, DayInfo* info) {
  // Positions hold a day's block number in 24 bits and the index file holds
  // fewer than 2^24 records: a block past either could never be named.
  uint64_t records = 0;
  index_.tree().Iterate(
      [&records](const uint16_t&, DayInfo& each, void*, bool&) {
        records += each.GetBlockCount();
        return true;
      },
      nullptr);
  const uint64_t in_day = info != nullptr ? info->GetBlockCount() : 0;
  if (records + 1 < Index::kMaxRecords && in_day + 1 <= (1u << 24)) return false;
  Log(Keel::Log::Error, kIndexFull, day, records, in_day);
  return true;
}

bool StoreCatalog::MakeRoomForDay(const Settings& settings, uint16_t day) {
  // Only indexed days count here: deleting a loose file makes no room.
  while (index_.tree().GetCount() + 1 > settings.max_days) {
    if (!EvictOldestDay(day)) {
      Log(Keel::Log::Error, kDayLimitEvictionFailed, day);
      return false;
    }
  }
  return true;
}

DayInfo* StoreCatalog::NewDay(uint16_t day) {
  if (has_new_day_ && new_day_ == day) return &new_day_info_;
  Log(Keel::Log::Information, kNewDay, day);
  new_day_info_ = DayInfo();
  if (!new_day_info_.Create()) {
    Log(Keel::Log::Error, kDayCreateFailed, day);
    has_new_day_ = false;
    return nullptr;
  }
  has_new_day_ = true;
  new_day_ = day;
  return &new_day_info_;
}

void StoreCatalog::ReleaseNewDay(uint16_t day) {
  if (!has_new_day_ || new_day_ != day) return;
  has_new_day_ = false;
  // What the day's file holds (a header, the bytes of a failed write) stays
  // counted, as a loose file, until a block of the day makes it indexed.
  for (uint32_t i = 0; i < new_day_info_.GetVersionCount(); ++i) {
    const VersionInfo* version = new_day_info_.GetVersion(i);
    indexed_size_ -= std::min(indexed_size_, version->on_disk_size);
    uint64_t size = 0;
    if (FS::GetFileSize(DayFilePath(day, version->version), size) && size != 0) {
      AddLooseFile(day, version->version, size);
    }
  }
  new_day_info_ = DayInfo();
}

StoreCatalog::Placement StoreCatalog::OpenVersionForWriting(uint16_t day, DayInfo& info,
                                                            Keel::OS::File& file) {
  const uint8_t version = DayInfo::kInitialVersion;
  const uint64_t known = info.onDiskSize(version);
  const std::string path = DayFilePath(day, version);
  uint64_t size = 0;
  AppendOpen opened = OpenDayFileForAppend(path, file, size, true);
  // Once more before believing it: most failures pass.
  if (opened == AppendOpen::kIoError) opened = OpenDayFileForAppend(path, file, size, true);
  switch (opened) {
    case AppendOpen::kIoError:
      Log(Keel::Log::Error, kDayFileOpenFailed, day, version, file.LastError());
      if (IsShortage(file.LastError())) return Placement::kFail;
      return ReplaceUnreadableFile(day, info, file);
    case AppendOpen::kBadHeader:
      return ReplaceUnusableFile(day, info, file);
    case AppendOpen::kOk:
      break;
  }
  if (size == known) return Placement::kAppend;
  if (known == 0 && size == kDayFileHeaderSize) {
    // A header an earlier attempt left: its name is made durable here, as a
    // new file's is.
    if (!SyncDirectoryOf(path)) return Placement::kFail;
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

StoreCatalog::Placement StoreCatalog::ReplaceUnreadableFile(uint16_t day, DayInfo& info,
                                                            Keel::OS::File& file) {
  // The day's file keeps failing (a bad sector, a file some other program
  // holds): it goes aside with its blocks, for the recover tool, and the day
  // goes on in a new file, so that storing goes on.
  const uint8_t version = DayInfo::kInitialVersion;
  if (!SetAside(Utils::DayFileName(day, version))) return Placement::kFail;
  ForgetLooseFile(day, version);
  indexed_size_ -= std::min(indexed_size_, info.onDiskSize(version));
  info.ClearVersion(version);
  NextGeneration();
  uint64_t size = 0;
  if (OpenDayFileForAppend(DayFilePath(day, version), file, size, true) != AppendOpen::kOk) {
    Log(Keel::Log::Error, kDayFileCreateFailed, day);
    return Placement::kFail;
  }
  Log(Keel::Log::Warning, kDayFileReplaced, day, version);
  info.setOnDiskSize(version, size);
  indexed_size_ += size;
  return Placement::kCreated;
}

bool StoreCatalog::RecordBlock(uint16_t day, const BlockInfo& block, uint64_t on_disk_size) {
  DayInfo* info = index_.tree().SearchUnsafe(day);
  if (info == nullptr && has_new_day_ && new_day_ == day) {
    // The day enters the index with its first block.
    if (!new_day_info_.AddBlock(block) || !index_.tree().Insert(day, std::move(new_day_info_))) {
      Log(Keel::Log::Error, kDayInsertFailed, day);
      ReleaseNewDay(day);
      return false;
    }
    has_new_day_ = false;
    new_day_info_ = DayInfo();
    info = index_.tree().SearchUnsafe(day);
    if (info == nullptr) return false;
    info->addOnDiskSize(block.version, on_disk_size);
    indexed_size_ += on_disk_size;
    return true;
  }
  if (info == nullptr) {
    Log(Keel::Log::Error, kRecordUnknownDay, day);
    return false;
  }
  if (!info->AddBlock(block)) return false;
  info->addOnDiskSize(block.version, on_disk_size);
  indexed_size_ += on_disk_size;
  return true;
}

void StoreCatalog::AbandonBlock(uint16_t day, Keel::OS::File& file, uint64_t offset) {
  // The index still ends before the block; what reached the file goes, so
  // that the next block of the day starts at the same offset.
  if (!file.Truncate(offset) || !file.Flush()) {
    Log(Keel::Log::Error, kCutBackFailed, day, offset, file.LastError());
  }
  file.Close();
  ReleaseNewDay(day);
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
  if (EvictAside()) return true;
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

bool StoreCatalog::EvictAside() {
  for (size_t i = 0; i < aside_.size(); ++i) {
    if (!FS::DeleteFile(PathOf(aside_[i].name))) continue;
    Log(Keel::Log::Information, kAsideEvicted, aside_[i].size);
    aside_size_ -= std::min(aside_size_, aside_[i].size);
    aside_.erase(aside_.begin() + static_cast<std::ptrdiff_t>(i));
    return true;
  }
  return false;
}

void StoreCatalog::AppendIndexedFileNames(std::vector<std::string>& names) {
  index_.tree().Iterate(
      [&names](const uint16_t& day, DayInfo& info, void*, bool&) {
        for (uint32_t i = 0; i < info.GetVersionCount(); ++i) {
          names.push_back(Utils::DayFileName(day, info.GetVersion(i)->version));
        }
        return true;
      },
      nullptr);
}

void StoreCatalog::RefreshAsideSizes() {
  for (AsideFile& file : aside_) {
    uint64_t size = 0;
    if (file.size != 0 || !FS::GetFileSize(PathOf(file.name), size)) continue;
    file.size = size;
    aside_size_ += size;
  }
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
    AddLooseFile(day, file.version, file.size);
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

void StoreCatalog::AddLooseFile(uint16_t day, uint8_t version, uint64_t size) {
  ForgetLooseFile(day, version);
  loose_.push_back({day, version, size});
  loose_size_ += size;
}

bool StoreCatalog::SetAside(const std::string& name) {
  const std::string from = PathOf(name);
  for (uint32_t attempt = 0; attempt < 100; ++attempt) {
    const std::string aside = Utils::AsideName(name, attempt);
    if (FS::Exists(PathOf(aside))) continue;
    if (!FS::MoveFile(from, PathOf(aside))) break;
    uint64_t size = 0;
    // Sized again under the new name: a file that cannot be sized counts 0
    // until the next start sizes it.
    if (!FS::GetFileSize(PathOf(aside), size)) size = 0;
    // A set-aside index is no day file: it is not counted or evicted.
    if (name != Index::FILENAME) {
      aside_.push_back({aside, size});
      aside_size_ += size;
    }
    if (telemetry_ != nullptr) telemetry_->notify_file_set_aside();
    Log(Keel::Log::Warning, kSetAside, attempt, size);
    return true;
  }
  Log(Keel::Log::Error, kSetAsideFailed, FS::LastError());
  return false;
}

bool StoreCatalog::Wipe() {
  std::vector<std::string> names;
  if (!FS::ListDirectory(directory_, names) && !FS::ListDirectory(directory_, names)) {
    // Without a listing, what the store knows of goes.
    Log(Keel::Log::Error, kWipeListFailed);
    names = names_;
    AppendIndexedFileNames(names);
    for (const LooseFile& f : loose_) names.push_back(Utils::DayFileName(f.day, f.version));
    for (const AsideFile& f : aside_) names.push_back(f.name);
    names.push_back(Utils::kFinalFileName);
    names.push_back(Index::FILENAME);
  }
  // The index goes first, so that no crash leaves it naming deleted files.
  std::stable_partition(names.begin(), names.end(),
                        [](const std::string& name) { return name == Index::FILENAME; });
  index_.clear();
  NextGeneration();
  indexed_size_ = 0;
  loose_size_ = 0;
  aside_size_ = 0;
  loose_.clear();
  aside_.clear();
  day_files_.clear();
  has_new_day_ = false;
  bool ok = true;
  for (const std::string& name : names) {
    uint16_t day = 0;
    uint8_t version = 0;
    const bool day_file = Utils::IsStorageFile(name.c_str(), false, day, version);
    bool store_file = day_file || name == Index::FILENAME ||
                      name == std::string(Index::FILENAME) + ".temp" ||
                      name == Utils::kFinalFileName || !Utils::NameBeforeAside(name).empty();
    if (!store_file || FS::DeleteFile(PathOf(name))) continue;
    // A file that will not go must not stop the store: it is counted and
    // goes first when room is needed.
    Log(Keel::Log::Error, kDeleteFailed, day, version);
    ok = false;
    uint64_t size = 0;
    const bool sized = FS::GetFileSize(PathOf(name), size);
    if (!Utils::NameBeforeAside(name).empty()) {
      aside_.push_back({name, sized ? size : 0});
      aside_size_ += sized ? size : 0;
    } else if (day_file && !SetAside(name)) {
      AddLooseFile(day, version, sized ? size : 0);
    } else if (name == Utils::kFinalFileName) {
      SetAside(name);  // its block belongs to a wiped store: never taken back
    }
  }
  names_.clear();
  return ok;
}

}  // namespace Tarn::Storage
