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
#include "manager/DayFile.h"
#include "manager/EventsBlock.h"
#include "manager/Index.h"
#include "manager/StorageHelper.h"
#include "manager/StoreCatalog.h"

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

bool StoreCatalog::Reconcile() {
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
    if (!FS::GetFileSize(PathOf(name.c_str()), size)) continue;
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

  bool changed = false;
  indexed_size_ = 0;
  for (uint16_t day : days) {
    DayInfo* info = tree.SearchUnsafe(day);
    if (info == nullptr) continue;
    ReconcileDay(day, *info, files, changed);
    if (info->GetBlockCount() == 0 && info->totalOnDiskSize() == 0) {
      // Nothing of the day is left on disk.
      Log(Keel::Log::Warning, kDayDropped, day);
      tree.Erase(day);
      changed = true;
      continue;
    }
    indexed_size_ += info->totalOnDiskSize();
  }

  loose_.clear();
  loose_size_ = 0;
  for (const LooseFile& f : files) {
    DayInfo* info = tree.SearchUnsafe(f.day);
    if (info != nullptr && info->HasVersion(f.version)) continue;
    Log(Keel::Log::Warning, kLooseFile, f.day, f.version, f.size);
    loose_.push_back(f);
    loose_size_ += f.size;
  }
  return changed;
}

void StoreCatalog::ReconcileDay(uint16_t day, DayInfo& info, const std::vector<LooseFile>& files,
                                bool& changed) {
  std::vector<uint8_t> versions;
  for (uint32_t i = 0; i < info.GetVersionCount(); ++i) {
    versions.push_back(info.GetVersion(i)->version);
  }
  for (uint8_t version : versions) {
    const LooseFile* file = FindFile(files, day, version);
    if (file == nullptr) {
      Log(Keel::Log::Warning, kVersionFileMissing, day, version);
    } else if (ReconcileVersion(day, info, version, file->size, changed)) {
      continue;
    } else {
      Log(Keel::Log::Warning, kVersionFileUnusable, day, version);
    }
    uint32_t before = info.GetBlockCount();
    info.ClearVersion(version);
    changed |= info.GetBlockCount() != before;
  }
}

bool StoreCatalog::ReconcileVersion(uint16_t day, DayInfo& info, uint8_t version,
                                    uint64_t file_size, bool& changed) {
  Keel::OS::File file;
  DayFileCheck check = DayFileCheck::TooShort;
  if (!file.Open(DayFilePath(day, version), Keel::OS::File::Mode::ReadWrite) ||
      !ReadDayFileHeader(file, check) || check != DayFileCheck::Ok) {
    return false;
  }

  // Indexed blocks of this file must follow one another and lie inside it;
  // the first that does not is dropped with every later one.
  uint64_t end = kDayFileHeaderSize;
  for (uint32_t i = 0; i < info.GetBlockCount(); ++i) {
    const BlockInfo* block = info.GetBlock(i);
    if (block->version != version) continue;
    BlockHeader header;
    if (block->block_offset < end ||
        !ReadBlockHeader(file, block->block_offset, file_size, header)) {
      Log(Keel::Log::Warning, kBlockBeyondFile, day, block->block_offset, file_size);
      info.DropBlocksFrom(i, version);
      changed = true;
      break;
    }
    end = static_cast<uint64_t>(block->block_offset) + kBlockHeaderSize + header.stored_size;
  }

  if (version == DayInfo::kInitialVersion) {
    changed |= RecoverTrailingBlocks(day, info, file, end, file_size);
    if (file_size > end) {
      if (!file.Truncate(end) || !file.Flush()) {
        Log(Keel::Log::Error, kTailCutFailed, day, end, file_size);
        end = file_size;  // keep counting what is really there
      } else {
        Log(Keel::Log::Warning, kTailCut, day, end, file_size);
      }
    }
  } else {
    end = file_size;
  }
  info.setOnDiskSize(version, end);
  return true;
}

bool StoreCatalog::RecoverTrailingBlocks(uint16_t day, DayInfo& info, Keel::OS::File& file,
                                         uint64_t& end, uint64_t file_size) {
  Keel::Collections::Buffer payload;
  Keel::Collections::Buffer raw;
  bool recovered = false;
  while (end + kBlockHeaderSize <= file_size) {
    BlockHeader header;
    if (!ReadBlockHeader(file, end, file_size, header) ||
        !ReadBlockPayload(file, end, header, payload) || !DecodeBlock(payload, header, raw)) {
      break;
    }
    RawBlockView view(raw.Data(), header.raw_size, header.table_offset);
    uint32_t count = view.EventCount();
    if (count == 0) break;
    BlockInfo block{static_cast<uint32_t>(end), count, view.Second(0), view.Second(count - 1),
                    DayInfo::kInitialVersion};
    if (!info.AddBlock(block)) break;
    Log(Keel::Log::Warning, kBlockRecovered, day, end, count);
    end += kBlockHeaderSize + header.stored_size;
    recovered = true;
  }
  return recovered;
}

}  // namespace Tarn::Storage
