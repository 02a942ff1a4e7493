// Start-up reconciliation of the index with the day files on disk.
//
// The index is saved after every block, so after a crash it can lag behind
// the files by at most the block being written; after damage it may name
// blocks that no longer read, or lose records of blocks that do. Each day
// file the index names is charted block by block (one 18-byte read a
// block), and the index is made to agree with the chart:
// - a record whose block lies whole where it says, with the event count its
//   header gives, stays as it is (a payload that no longer decodes is found
//   when the block is read, not here);
// - a whole block no record names, or names with another count, is decoded
//   and recorded from what it holds (the crash window, a damaged record);
// - a record that names no whole block is dropped, and only that one: the
//   chart finds the next block from the offsets the index names and from
//   the blocks' own framing;
// - bytes behind the last whole block are cut when they are the torn tail
//   of a write, never when the index named a block there.
// A day left without blocks leaves the index; its files count as loose.

#include <algorithm>
#include <cerrno>
#include <map>

#include "Keel/Collections/Buffer.h"
#include "Keel/Log.h"
#include "Keel/OS/FileSystem.h"
#include "manager/format/DayFile.h"
#include "manager/format/DayFileReader.h"
#include "manager/format/EventsBlock.h"
#include "manager/format/StorageHelper.h"
#include "manager/index/Index.h"
#include "manager/writer/StoreCatalog.h"

namespace Tarn::Storage {
namespace {

namespace FS = Keel::OS::FileSystem;

enum Message : uint32_t {
  kListFailed = 1,
  kVersionFileMissing = 2,
  kVersionFileUnusable = 3,
  kBlockUnreadable = 4,
  kBlockRecovered = 5,
  kTailCut = 6,
  kTailCutFailed = 7,
  kLooseFile = 8,
  kDayDropped = 9,
  kSizeFailed = 10,
  kVersionFileUnreadable = 11,
  kRecordRepeated = 12,
  kAdoptFlushFailed = 13,
  kBlockDamaged = 14,
  kVersionHeaderDamaged = 15,
  kHeaderRepaired = 16,
  kHeaderRepairFailed = 17,
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

bool SameBlocks(const DayInfo& info, uint8_t version, const std::vector<BlockInfo>& blocks) {
  size_t next = 0;
  for (uint32_t i = 0; i < info.GetBlockCount(); ++i) {
    const BlockInfo& block = *info.GetBlock(i);
    if (block.version != version) continue;
    if (next == blocks.size() || !(blocks[next] == block)) return false;
    ++next;
  }
  return next == blocks.size();
}

}  // namespace

void StoreCatalog::Survey() {
  names_.clear();
  // Once more before going without: most failures pass.
  listed_ = FS::ListDirectory(directory_, names_) || FS::ListDirectory(directory_, names_);
  if (!listed_) {
    Log(Keel::Log::Error, kListFailed, FS::LastError());
    names_.clear();
  }
}

std::vector<std::string> StoreCatalog::AsideIndexes() const {
  std::vector<std::string> found;
  for (const std::string& name : names_) {
    if (Utils::NameBeforeAside(name) == Index::FILENAME) found.push_back(name);
  }
  return found;
}

void StoreCatalog::SizeDayFiles() {
  day_files_.clear();
  aside_.clear();
  aside_size_ = 0;
  std::vector<std::string> names = names_;
  // Without a listing the files the index names are looked up by name; the
  // others wait for a start that can list the directory.
  if (!listed_) AppendIndexedFileNames(names);
  for (const std::string& name : names) {
    uint16_t day = 0;
    uint8_t version = 0;
    uint64_t size = 0;
    const std::string path = PathOf(name);
    const std::string before = Utils::NameBeforeAside(name);
    if (!before.empty() && before != Index::FILENAME) {
      // Set aside by an earlier run: counted, deleted first, never read.
      const bool sized = FS::GetFileSize(path, size);
      aside_.push_back({name, sized ? size : 0});
      aside_size_ += sized ? size : 0;
      continue;
    }
    if (!Utils::IsStorageFile(name.c_str(), false, day, version)) continue;
    if (FS::GetFileSize(path, size) || FS::GetFileSize(path, size)) {
      day_files_.push_back({day, version, size});
      continue;
    }
    const int error = FS::LastError();
    if (error == ENOENT) continue;
    // A file the store cannot size would escape the budget, and one it
    // cannot read would stop every start: it goes aside for the recover
    // tool. When even that fails it is left where it is, its blocks named.
    Log(Keel::Log::Error, kSizeFailed, day, version, error);
    if (!SetAside(name)) day_files_.push_back({day, version, 0});
  }
}

void StoreCatalog::Reconcile(bool index_was_read, bool& changed) {
  SizeDayFiles();
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
    ReconcileDay(day, *info, changed);
    if (info->GetBlockCount() == 0) {
      // Nothing of the day can be read: an empty day would stop every walk.
      Log(Keel::Log::Warning, kDayDropped, day, info->totalOnDiskSize());
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
  for (const LooseFile& f : day_files_) {
    DayInfo* info = tree.SearchUnsafe(f.day);
    if (info != nullptr && info->HasVersion(f.version)) continue;
    // Newer than every indexed day: the index save after its blocks was lost.
    if (index_was_read && f.version == DayInfo::kInitialVersion && info == nullptr &&
        (empty || f.day > newest_day) && AdoptNewerDay(f)) {
      changed = true;
      continue;
    }
    Log(Keel::Log::Warning, kLooseFile, f.day, f.version, f.size);
    AddLooseFile(f.day, f.version, f.size);
  }
}

void StoreCatalog::ReconcileDay(uint16_t day, DayInfo& info, bool& changed) {
  std::vector<uint8_t> versions;
  for (uint32_t i = 0; i < info.GetVersionCount(); ++i) {
    versions.push_back(info.GetVersion(i)->version);
  }
  for (uint8_t version : versions) {
    const LooseFile* file = FindFile(day_files_, day, version);
    if (file == nullptr) {
      Log(Keel::Log::Warning, kVersionFileMissing, day, version);
    } else {
      DayFileReader reader;
      DayFileCheck check = DayFileCheck::ReadFailed;
      const std::string path = DayFilePath(day, version);
      const auto mode = Keel::OS::File::Mode::ReadWrite;
      const bool opened =
          reader.Open(path, check, mode, version) ||
          (check == DayFileCheck::ReadFailed && reader.Open(path, check, mode, version));
      // A damaged header says nothing of the blocks behind it, which are
      // read by their own framing: they are charted as in any file.
      const bool header_damaged = !opened && check != DayFileCheck::ReadFailed &&
                                  check != DayFileCheck::TooShort;
      if (header_damaged) {
        Log(Keel::Log::Warning, kVersionHeaderDamaged, day, version, static_cast<uint32_t>(check));
      }
      if (opened || header_damaged) {
        uint64_t end = AlignVersion(day, info, version, reader, changed);
        if (header_damaged) RepairHeader(day, info, version, reader, path);
        info.setOnDiskSize(version, end != 0 ? end : reader.Size());
        continue;
      }
      if (check == DayFileCheck::ReadFailed) {
        // The file may be whole: its blocks stay named, its bytes counted.
        Log(Keel::Log::Error, kVersionFileUnreadable, day, version);
        info.setOnDiskSize(version, file->size);
        continue;
      }
      Log(Keel::Log::Warning, kVersionFileUnusable, day, version, static_cast<uint32_t>(check));
    }
    uint32_t before = info.GetBlockCount();
    info.ClearVersion(version);
    changed |= info.GetBlockCount() != before;
    NextGeneration();
  }
}

void StoreCatalog::RepairHeader(uint16_t day, const DayInfo& info, uint8_t version,
                                DayFileReader& reader, const std::string& path) {
  // Its blocks are framed and checked on their own: a fresh header makes
  // them readable again, where it would otherwise fail every read. Only a
  // file where the index finds a block of its own: other bytes under a day
  // file's name are not made one.
  bool framed = false;
  BlockHeader header;
  for (uint32_t i = 0; i < info.GetBlockCount() && !framed; ++i) {
    const BlockInfo& block = *info.GetBlock(i);
    framed = block.version == version && reader.FramesBlock(block.block_offset, header);
  }
  if (!framed || version != kDayFileFormatVersion) return;
  if (RewriteDayFileHeader(path)) {
    Log(Keel::Log::Warning, kHeaderRepaired, day, version);
  } else {
    Log(Keel::Log::Error, kHeaderRepairFailed, day, version);
  }
}

bool StoreCatalog::AdoptNewerDay(const LooseFile& file) {
  DayFileReader reader;
  DayFileCheck check = DayFileCheck::ReadFailed;
  if (!reader.Open(DayFilePath(file.day, file.version), check, Keel::OS::File::Mode::ReadWrite)) {
    return false;
  }
  DayInfo fresh;
  if (!fresh.Create()) return false;
  bool changed = false;
  const uint64_t end = AlignVersion(file.day, fresh, file.version, reader, changed);
  // Nothing whole in it (or its tail would not go): left for the writer.
  if (fresh.GetBlockCount() == 0 || end == 0) return false;
  fresh.setOnDiskSize(file.version, end);
  if (!index_.tree().Insert(file.day, std::move(fresh))) return false;
  indexed_size_ += end;
  return true;
}

uint64_t StoreCatalog::AlignVersion(uint16_t day, DayInfo& info, uint8_t version,
                                    DayFileReader& reader, bool& changed) {
  // The index's records of this file, by offset; a repeated offset is a
  // damaged record.
  std::map<uint64_t, BlockInfo> named;
  std::vector<uint64_t> anchors;
  for (uint32_t i = 0; i < info.GetBlockCount(); ++i) {
    const BlockInfo& block = *info.GetBlock(i);
    if (block.version != version) continue;
    if (!named.emplace(block.block_offset, block).second) {
      Log(Keel::Log::Warning, kRecordRepeated, day, block.block_offset);
      continue;
    }
    anchors.push_back(block.block_offset);
  }
  std::sort(anchors.begin(), anchors.end());
  std::vector<FileSpan> spans;
  if (!reader.Chart(anchors, spans)) return 0;  // nothing is dropped or cut on a failed read

  std::vector<BlockInfo> kept;
  bool adopted = false;
  Keel::Collections::Buffer raw;
  for (const FileSpan& span : spans) {
    if (!span.whole) continue;
    auto record = named.find(span.offset);
    const uint32_t count = (span.header.raw_size - span.header.table_offset) / kEntrySize;
    if (record != named.end() && record->second.events_count == count) {
      kept.push_back(record->second);
      named.erase(record);
      continue;
    }
    // Not named, or named with another count: the block says what it holds.
    if (!reader.Decode(span.offset, span.header, raw)) {
      if (reader.io_error()) return 0;
      if (record != named.end()) {
        // Its bytes are damaged: it fails when it is read, as any block whose
        // payload went bad does.
        kept.push_back(record->second);
        named.erase(record);
      }
      continue;
    }
    const RawBlockView view(raw.Data(), span.header.raw_size, span.header.table_offset);
    if (view.EventCount() == 0) continue;
    kept.push_back(BlockInfo{static_cast<uint32_t>(span.offset), view.EventCount(),
                             view.Second(0), view.Second(view.EventCount() - 1), version});
    if (record != named.end()) named.erase(record);
    adopted = true;
    Log(Keel::Log::Warning, kBlockRecovered, day, span.offset, view.EventCount());
  }
  // A named block that does not frame (its header or its stream's start
  // damaged) stays named where its bytes lie: read, it fails and is reported,
  // and the recover tool finds it; dropped here, its events would vanish
  // without a word. A record pointing past the file, or into a whole block,
  // names nothing that exists.
  for (const auto& [named_offset, block] : named) {
    const uint64_t offset = named_offset;  // a lambda cannot capture a binding
    const bool inside_whole = std::any_of(spans.begin(), spans.end(), [&](const FileSpan& span) {
      return span.whole && offset >= span.offset && offset < span.end;
    });
    const bool present = offset + kBlockHeaderSize <= reader.Size() && !inside_whole;
    Log(Keel::Log::Warning, present ? kBlockDamaged : kBlockUnreadable, day, offset,
        block.events_count);
    if (present) kept.push_back(block);
  }
  std::sort(kept.begin(), kept.end(),
            [](const BlockInfo& a, const BlockInfo& b) { return a.block_offset < b.block_offset; });

  // Where the next block goes. Bytes after the last whole block are cut when
  // they are the torn tail of a write; where the index named a block among
  // them they are damage, and stay for the recover tool.
  uint64_t end = reader.Size();
  if (!spans.empty() && !spans.back().whole && version == DayInfo::kInitialVersion) {
    const FileSpan& tail = spans.back();
    const bool named_inside = std::any_of(anchors.begin(), anchors.end(), [&](uint64_t a) {
      return a >= tail.offset && a < tail.end;
    });
    if (!named_inside) end = tail.offset;
  }
  // Nothing is named before its bytes are durable: blocks put back may have
  // been written by a process that died before it flushed them.
  if ((adopted || end < reader.Size()) && !reader.file().Flush()) {
    Log(Keel::Log::Error, kAdoptFlushFailed, day, version);
    return 0;
  }
  if (end < reader.Size()) {
    if (!reader.file().Truncate(end) || !reader.file().Flush()) {
      Log(Keel::Log::Error, kTailCutFailed, day, end, reader.Size());
      return 0;
    }
    Log(Keel::Log::Warning, kTailCut, day, end, reader.Size());
  }
  if (!SameBlocks(info, version, kept)) {
    if (!info.SetVersionBlocks(version, kept)) return 0;
    NextGeneration();
    changed = true;
  }
  return end;
}

}  // namespace Tarn::Storage
