// Start-up reconciliation of the index with the day files on disk.
//
// The index is saved after every block, so after a crash it can lag behind
// the files by at most the block being written. Reconciliation makes the
// index name only blocks that lie whole on disk, puts back complete blocks
// that were written but not yet indexed, cuts a torn tail, and lists the day
// files no index entry names so that their bytes count toward the budget.

#include <algorithm>

#include "Keel/Collections/Buffer.h"
#include "Keel/Log.h"
#include "Keel/OS/FileSystem.h"
#include "manager/format/DayFile.h"
#include "manager/format/DayFileReader.h"
#include "manager/format/EventsBlock.h"
#include "manager/index/Index.h"
#include "manager/format/StorageHelper.h"
#include "manager/writer/StoreCatalog.h"

namespace Tarn::Storage {
namespace {

namespace FS = Keel::OS::FileSystem;

enum Message : uint32_t {
  kListFailed = 1,
  kVersionFileMissing = 2,
  kVersionFileUnusable = 3,
  kBlockBeyondFile = 4,
  kBlockRecovered = 5,
  kTailCut = 6,
  kTailCutFailed = 7,
  kLooseFile = 8,
  kDayDropped = 9,
  kSizeFailed = 10,
  kVersionFileUnreadable = 11,
};

void Log(uint32_t severity, Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(severity, Keel::Log::StorageManager, 200 + message, a, b, c);
}

const StoreCatalog::LooseFile* FindFile(const std::vector<StoreCatalog::LooseFile>& files,
                                        uint16_t day, uint8_t version) {
  for (const auto& f : files) {
    if (f.day == day && f.version == version) return &f;
  }
  return nullptr;
}

}  // namespace

bool StoreCatalog::Reconcile(bool index_was_read, bool& changed) {
  std::vector<std::string> names;
  if (!FS::ListDirectory(directory_, names)) {
    Log(Keel::Log::Error, kListFailed);
    return false;
  }
  std::vector<LooseFile> files;
  for (const std::string& name : names) {
    uint16_t day = 0;
    uint8_t version = 0;
    uint64_t size = 0;
    if (!Utils::IsStorageFile(name.c_str(), false, day, version)) continue;
    if (!FS::GetFileSize(PathOf(name.c_str()), size)) {
      // A file the store cannot size would escape the budget.
      Log(Keel::Log::Error, kSizeFailed, day, version);
      return false;
    }
    files.push_back({day, version, size});
  }

  auto& tree = index_.tree();
  std::vector<uint16_t> days;
  tree.Iterate(
      [&days](const uint16_t& day, DayInfo&, void*, bool&) {
        days.push_back(day);
        return true;
      },
      nullptr, false);

  indexed_size_ = 0;
  for (uint16_t day : days) {
    DayInfo* info = tree.SearchUnsafe(day);
    if (info == nullptr) continue;
    ReconcileDay(day, *info, files, changed);
    if (info->GetBlockCount() == 0 && info->totalOnDiskSize() == 0) {
      // Nothing of the day is left on disk.
      Log(Keel::Log::Warning, kDayDropped, day);
      tree.Erase(day);
      NextGeneration();
      changed = true;
      continue;
    }
    indexed_size_ += info->totalOnDiskSize();
  }

  uint16_t* newest = nullptr;
  const bool empty = tree.GetMaxUnsafe(newest) == nullptr;
  const uint32_t newest_day = empty ? 0 : *newest;
  loose_.clear();
  loose_size_ = 0;
  for (const LooseFile& f : files) {
    DayInfo* info = tree.SearchUnsafe(f.day);
    if (info != nullptr && info->HasVersion(f.version)) continue;
    // Newer than every indexed day: the index save after its blocks was lost.
    if (index_was_read && f.version == DayInfo::kInitialVersion && info == nullptr &&
        (empty || f.day > newest_day) && AdoptNewerDay(f)) {
      changed = true;
      continue;
    }
    Log(Keel::Log::Warning, kLooseFile, f.day, f.version, f.size);
    loose_.push_back(f);
    loose_size_ += f.size;
  }
  return true;
}

void StoreCatalog::ReconcileDay(uint16_t day, DayInfo& info, const std::vector<LooseFile>& files,
                                bool& changed) {
  std::vector<uint8_t> versions;
  for (uint32_t i = 0; i < info.GetVersionCount(); ++i) {
    versions.push_back(info.GetVersion(i)->version);
  }
  for (uint8_t version : versions) {
    DayFileReader reader;
    DayFileCheck check = DayFileCheck::ReadFailed;
    const LooseFile* file = FindFile(files, day, version);
    if (file == nullptr) {
      Log(Keel::Log::Warning, kVersionFileMissing, day, version);
    } else if (reader.Open(DayFilePath(day, version), check, Keel::OS::File::Mode::ReadWrite)) {
      uint64_t end = AlignVersion(day, info, version, reader, changed);
      info.setOnDiskSize(version, end != 0 ? end : reader.Size());
      continue;
    } else if (check == DayFileCheck::ReadFailed) {
      // The file may be whole: its blocks stay named, its bytes counted.
      Log(Keel::Log::Error, kVersionFileUnreadable, day, version);
      info.setOnDiskSize(version, file->size);
      continue;
    } else {
      Log(Keel::Log::Warning, kVersionFileUnusable, day, version, static_cast<uint32_t>(check));
    }
    uint32_t before = info.GetBlockCount();
    info.ClearVersion(version);
    changed |= info.GetBlockCount() != before;
    NextGeneration();
  }
}

bool StoreCatalog::AdoptNewerDay(const LooseFile& file) {
  DayFileReader reader;
  DayFileCheck check = DayFileCheck::ReadFailed;
  if (!reader.Open(DayFilePath(file.day, file.version), check, Keel::OS::File::Mode::ReadWrite)) {
    return false;
  }
  DayInfo fresh;
  if (!fresh.Create() || !index_.tree().Insert(file.day, std::move(fresh))) return false;
  DayInfo* info = index_.tree().SearchUnsafe(file.day);
  bool changed = false;
  uint64_t end = info != nullptr ? AlignVersion(file.day, *info, file.version, reader, changed) : 0;
  if (info == nullptr || info->GetBlockCount() == 0 || end == 0) {
    // Nothing whole in it (or its tail would not go): left for the writer.
    index_.tree().Erase(file.day);
    return false;
  }
  info->setOnDiskSize(file.version, end);
  indexed_size_ += end;
  return true;
}

uint64_t StoreCatalog::AlignVersion(uint16_t day, DayInfo& info, uint8_t version,
                                    DayFileReader& reader, bool& changed) {
  // Indexed blocks must follow one another and lie whole inside the file;
  // the first that does not is dropped with every later one.
  uint64_t end = kDayFileHeaderSize;
  for (uint32_t i = 0; i < info.GetBlockCount(); ++i) {
    const BlockInfo* block = info.GetBlock(i);
    if (block->version != version) continue;
    BlockHeader header;
    const bool whole = block->block_offset >= end && reader.ReadHeader(block->block_offset, header);
    if (!whole && reader.io_error()) return 0;  // nothing is dropped or cut on a failed read
    if (!whole) {
      Log(Keel::Log::Warning, kBlockBeyondFile, day, block->block_offset, reader.Size());
      info.DropBlocksFrom(i, version);
      NextGeneration();
      changed = true;
      break;
    }
    end = static_cast<uint64_t>(block->block_offset) + kBlockHeaderSize + header.stored_size;
  }
  // Only version 2 is written to, so only it can have blocks nobody indexed.
  if (version != DayInfo::kInitialVersion) return reader.Size();

  end = reader.Walk(end, [&](const WalkedBlock& block) {
    if (!block.decoded) return false;
    const uint32_t count = block.view.EventCount();
    BlockInfo recovered{static_cast<uint32_t>(block.offset), count, block.view.Second(0),
                        block.view.Second(count - 1), version};
    if (!info.AddBlock(recovered)) return false;
    Log(Keel::Log::Warning, kBlockRecovered, day, block.offset, count);
    changed = true;
    return true;
  });
  if (reader.io_error()) return 0;
  if (reader.Size() > end) {
    if (!reader.file().Truncate(end) || !reader.file().Flush()) {
      Log(Keel::Log::Error, kTailCutFailed, day, end, reader.Size());
      return 0;
    }
    Log(Keel::Log::Warning, kTailCut, day, end, reader.Size());
  }
  return end;
}

}  // namespace Tarn::Storage
