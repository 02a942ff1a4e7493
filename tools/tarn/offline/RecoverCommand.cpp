// tarn recover: rebuilds storage.index.db from the day files of a closed
// store, after bringing back the files the store set aside because they kept
// failing to read. Blocks are read, never changed; the index is written the
// way the store writes it (a temporary file renamed over the old one).

#include <algorithm>
#include <cstdio>
#include <map>

#include "Keel/OS/FileSystem.h"
#include "Keel/Utils/String.h"
#include "manager/format/FinalFile.h"
#include "manager/format/StorageHelper.h"
#include "manager/index/TimeIndex.h"
#include "manager/writer/Settings.h"
#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/cli/Progress.h"
#include "tarn/cli/TextForms.h"
#include "tarn/offline/StoreFiles.h"
#include "tarn/offline/StoreLock.h"

namespace Tarn::Tool {
namespace {

namespace FS = Keel::OS::FileSystem;
using Storage::BlockInfo;
using Storage::FileSpan;
using Storage::RawBlockView;
using Storage::WalkedBlock;

struct ScannedFile {
  uint16_t day = 0;
  uint8_t version = 0;
  uint64_t size = 0;
  std::vector<BlockInfo> blocks;
  uint64_t events = 0;
};

struct Totals {
  uint64_t blocks = 0;
  uint64_t events = 0;
  uint64_t lost_blocks = 0;
  uint64_t damaged_spans = 0;
  uint64_t skipped_files = 0;
  uint64_t still_aside = 0;
  uint64_t newest = 0;  // epoch seconds of the last event
};

std::string PathIn(const std::string& directory, const std::string& name) {
  return directory + "/" + name;
}

// Copies the whole blocks of `spans` from `reader` to the end of `out`.
bool CopyBlocks(DayFileReader& reader, const std::vector<FileSpan>& spans, Keel::OS::File& out,
                uint64_t& at) {
  std::vector<uint8_t> bytes;
  for (const FileSpan& span : spans) {
    if (!span.whole) continue;
    bytes.resize(span.end - span.offset);
    if (!reader.file().ReadAtExact(span.offset, bytes.data(), bytes.size()) ||
        !out.WriteAt(at, bytes.data(), bytes.size())) {
      return false;
    }
    at += bytes.size();
  }
  return true;
}

// A set-aside day file whose name the store has used again since: one file
// of the day is written holding the set-aside blocks (the older ones) and
// then the current file's, and put in the current file's place.
bool MergeDayFiles(const std::string& directory, const AsideEntry& aside, uint8_t version,
                   std::string& error) {
  DayFileReader older, newer;
  Storage::DayFileCheck check;
  const std::string current = PathIn(directory, aside.original);
  if (!older.Open(PathIn(directory, aside.name), check, Keel::OS::File::Mode::Read, version) ||
      !newer.Open(current, check, Keel::OS::File::Mode::Read, version)) {
    error = "cannot read both files";
    return false;
  }
  std::vector<FileSpan> older_spans, newer_spans;
  if (!older.Chart({}, older_spans) || !newer.Chart({}, newer_spans)) {
    error = "a read failed";
    return false;
  }
  const std::string temp = current + ".temp";
  Keel::OS::File out;
  uint64_t at = Storage::kDayFileHeaderSize;
  if (!Storage::CreateDayFile(temp, out) || !CopyBlocks(older, older_spans, out, at) ||
      !CopyBlocks(newer, newer_spans, out, at) || !out.Flush() || !out.Close() ||
      !FS::MoveFile(temp, current) || !FS::DeleteFile(PathIn(directory, aside.name))) {
    FS::DeleteFile(temp);
    error = "cannot write " + aside.original;
    return false;
  }
  return true;
}

// The last second recorded in a day file: a block added to its end is
// filed no earlier, so that the day stays in order of its seconds.
uint32_t LastSecondIn(DayFileReader& reader, const std::vector<FileSpan>& spans) {
  uint32_t last = 0;
  reader.DecodeSpans(spans, [&last](const WalkedBlock& block) {
    if (block.decoded) last = std::max(last, block.view.Second(block.view.EventCount() - 1));
    return true;
  });
  return last;
}

// A set-aside shutdown block goes back where the store would take it: into
// the shutdown file when none waits there, else straight into its day file
// as a block of its own, filed after the day's last second.
void RestoreAsideFinal(const std::string& directory, const AsideEntry& aside, Totals& totals) {
  const std::string from = PathIn(directory, aside.name);
  const std::string to = PathIn(directory, aside.original);
  Keel::Collections::Buffer raw;
  uint32_t table_offset = 0, count = 0;
  uint16_t day = 0;
  if (Storage::ReadFinalFile(from, raw, table_offset, count, day) != Storage::FinalFileState::Ok) {
    std::printf("aside    %s: still cannot be read; kept aside\n", aside.name.c_str());
    ++totals.still_aside;
    return;
  }
  if (!FS::Exists(to)) {
    if (FS::MoveFile(from, to)) {
      std::printf("restored %s: the store takes its %s events back at its next start\n",
                  aside.original.c_str(), FormatCount(count).c_str());
      return;
    }
  } else {
    const std::string name = Storage::Utils::DayFileName(day, Storage::Utils::kWriteVersion);
    Keel::OS::File file;
    uint64_t end = 0;
    DayFileReader reader;
    std::vector<FileSpan> spans;
    bool placed = Storage::OpenDayFileForAppend(PathIn(directory, name), file, end, true) ==
                      Storage::AppendOpen::kOk &&
                  reader.Attach(file) && reader.Chart({}, spans);
    uint32_t floor = placed ? LastSecondIn(reader, spans) : 0;
    Keel::Collections::Buffer records, payload;
    Keel::Collections::Array<Storage::BlockEntry> entries;
    const RawBlockView view(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset);
    placed = placed && records.Create(table_offset + 1) && entries.Create(count) &&
             payload.Create(raw.Size() + 1024) && records.Push(raw.Data(), table_offset);
    for (uint32_t i = 0; placed && i < count; ++i) {
      const uint8_t* record = nullptr;
      uint32_t size = 0;
      floor = std::max(floor, view.Second(i));
      placed = view.Event(i, record, size) &&
               entries.Add(Storage::BlockEntry{static_cast<uint32_t>(record - raw.Data()), floor});
    }
    Storage::EncodedBlock encoded;
    if (placed && Storage::EncodeBlock(records, entries, payload, encoded) &&
        Storage::WriteBlock(file, end, encoded.header, payload) && FS::DeleteFile(from)) {
      std::printf("restored %s: its %s events are a block of %s now (a newer shutdown block "
                  "waits in %s)\n",
                  aside.name.c_str(), FormatCount(count).c_str(), name.c_str(),
                  aside.original.c_str());
      return;
    }
  }
  std::printf("aside    %s: could not be brought back; kept aside\n", aside.name.c_str());
  ++totals.still_aside;
}

// Brings back what the store set aside, where it reads now.
void RestoreAsideFiles(const std::string& directory, const StoreListing& listing, Totals& totals) {
  for (const AsideEntry& aside : listing.aside) {
    uint16_t day = 0;
    uint8_t version = 0;
    const std::string from = PathIn(directory, aside.name);
    const std::string to = PathIn(directory, aside.original);
    if (Storage::Utils::IsStorageFile(aside.original.c_str(), false, day, version)) {
      DayFileReader reader;
      Storage::DayFileCheck check;
      if (!reader.Open(from, check, Keel::OS::File::Mode::Read, version)) {
        std::printf("aside    %s: still cannot be read; kept aside\n", aside.name.c_str());
        ++totals.still_aside;
        continue;
      }
      reader.file().Close();
      std::string error;
      if (!FS::Exists(to) && FS::MoveFile(from, to)) {
        std::printf("restored %s as %s\n", aside.name.c_str(), aside.original.c_str());
      } else if (FS::Exists(to) && MergeDayFiles(directory, aside, version, error)) {
        std::printf("restored %s into %s, ahead of the blocks written since\n",
                    aside.name.c_str(), aside.original.c_str());
      } else {
        std::printf("aside    %s: could not be brought back (%s); kept aside\n",
                    aside.name.c_str(), error.empty() ? "rename failed" : error.c_str());
        ++totals.still_aside;
      }
    } else if (aside.original == Storage::Utils::kFinalFileName) {
      RestoreAsideFinal(directory, aside, totals);
    }
  }
}

// Writes a fresh header over a damaged one when the chart found whole blocks
// behind it; blocks themselves are not touched.
bool RepairHeader(const std::string& path, const std::string& name,
                  const std::vector<FileSpan>& spans) {
  const size_t whole = static_cast<size_t>(
      std::count_if(spans.begin(), spans.end(), [](const FileSpan& s) { return s.whole; }));
  if (whole == 0 || !Storage::RewriteDayFileHeader(path)) return false;
  std::printf("repaired %s: its header was damaged; %s behind it framed\n", name.c_str(),
              Counted(whole, "block").c_str());
  return true;
}

// Charts one day file from its header on and reads every whole block in it.
// Bytes that hold no whole block are passed over and reported.
bool ScanFile(const std::string& directory, const DayFileEntry& file, ScannedFile& scanned,
              Totals& totals, uint64_t& done, Progress& progress) {
  DayFileReader reader;
  Storage::DayFileCheck check;
  std::vector<FileSpan> spans;
  const std::string path = PathIn(directory, file.name);
  const bool opened = reader.Open(path, check, Keel::OS::File::Mode::Read, file.version);
  // A header of the store's format that went bad: the blocks behind it are
  // framed on their own, and a fresh header makes them readable again.
  const bool header_damaged = !opened && file.version == Storage::kDayFileFormatVersion &&
                              check != Storage::DayFileCheck::ReadFailed &&
                              check != Storage::DayFileCheck::TooShort;
  if ((!opened && !header_damaged) || !reader.Chart({}, spans) ||
      (header_damaged && !RepairHeader(path, file.name, spans))) {
    std::printf("skipped  %s: not a day file of this store, or unreadable\n", file.name.c_str());
    ++totals.skipped_files;
    return false;
  }
  scanned.day = file.day;
  scanned.version = file.version;
  scanned.size = reader.Size();
  for (const FileSpan& span : spans) {
    if (span.whole) continue;
    const bool tail = &span == &spans.back();
    std::printf("%s %s: bytes %llu to %llu hold no whole block%s\n",
                tail ? "tail    " : "damaged ", file.name.c_str(),
                static_cast<unsigned long long>(span.offset),
                static_cast<unsigned long long>(span.end),
                tail ? " (a torn write the store cuts, or damage it keeps)" : "");
    if (!tail) ++totals.damaged_spans;
  }
  const uint64_t done_before = done;
  const bool read = reader.DecodeSpans(spans, [&](const WalkedBlock& block) {
    if (block.decoded) {
      const RawBlockView& view = block.view;
      const uint32_t count = view.EventCount();
      scanned.blocks.push_back(BlockInfo{static_cast<uint32_t>(block.offset), count,
                                         view.Second(0), view.Second(count - 1), file.version});
      scanned.events += count;
      totals.newest =
          std::max(totals.newest, Storage::ToEpochSeconds(file.day, view.Second(count - 1)));
    } else {
      std::printf("lost     %s: the block at offset %llu does not decode; its events are not "
                  "indexed\n",
                  file.name.c_str(), static_cast<unsigned long long>(block.offset));
      ++totals.lost_blocks;
    }
    done = done_before + block.End() - Storage::kDayFileHeaderSize;
    progress.Update(done);
    return true;
  });
  if (!read) {
    std::printf("skipped  %s: a read failed\n", file.name.c_str());
    ++totals.skipped_files;
    return false;
  }
  if (scanned.blocks.empty()) {
    std::printf("empty    %s: no block of it can be indexed; the store keeps the file loose "
                "and deletes it first when it needs room\n",
                file.name.c_str());
  }
  totals.blocks += scanned.blocks.size();
  totals.events += scanned.events;
  return true;
}

// Puts the scanned files of each day into the index: older file versions
// first, as the store wrote them.
bool BuildIndex(std::vector<ScannedFile>& files, Storage::Index& index, std::string& error) {
  std::map<uint16_t, std::vector<const ScannedFile*>> by_day;
  for (const ScannedFile& f : files) by_day[f.day].push_back(&f);
  if (by_day.size() >= Storage::Index::kMaxDays) {
    error = "the day files cover " + std::to_string(by_day.size()) + " days; an index holds " +
            std::to_string(Storage::Index::kMaxDays - 1) + " at most";
    return false;
  }
  for (auto& [day, day_files] : by_day) {
    Storage::DayInfo info;
    if (!info.Create()) {
      error = "out of memory";
      return false;
    }
    for (const ScannedFile* f : day_files) {
      if (!info.HasVersion(f->version)) info.AddVersion(f->version, 0);
      info.setOnDiskSize(f->version, f->size);
      for (const BlockInfo& block : f->blocks) info.AddBlock(block);
    }
    if (!index.tree().Insert(day, std::move(info))) {
      error = "the index refused day " + std::to_string(day);
      return false;
    }
  }
  return true;
}

int RunRecover(const std::string& store) {
  StoreLock lock;
  if (!lock.AcquireClosed(store, "recover rebuilds the index of a closed store")) return 1;
  std::string error;
  StoreListing listing;
  if (!ListStore(store, listing, error)) {
    PrintError(error);
    return 1;
  }
  Totals totals;
  RestoreAsideFiles(store, listing, totals);
  if (!ListStore(store, listing, error)) {
    PrintError(error);
    return 1;
  }
  uint64_t total = 0;
  for (const DayFileEntry& file : listing.day_files) total += file.size;
  Progress progress("recover", total, "bytes");
  std::vector<ScannedFile> files;
  uint64_t done = 0;
  for (const DayFileEntry& file : listing.day_files) {
    ScannedFile scanned;
    if (ScanFile(store, file, scanned, totals, done, progress) && !scanned.blocks.empty()) {
      files.push_back(std::move(scanned));
    }
  }
  progress.Finish();

  // A fresh, empty index: loaded from a path that does not exist.
  Storage::Index index;
  index.set_directory(store);
  Storage::Settings settings = Storage::Settings::default_();
  Keel::Utils::String nowhere(store + "/.tarn-recover-no-index");
  if (!index.load_from(settings, nowhere) || !BuildIndex(files, index, error)) {
    PrintError(error.empty() ? "the index could not be created" : error);
    return 1;
  }
  if (!index.save(totals.newest)) {
    PrintError("could not write " + index.path());
    return 1;
  }
  // The rebuilt index names every day a set-aside index could.
  for (const AsideEntry& aside : listing.aside) {
    if (aside.original != Storage::Index::FILENAME) continue;
    if (FS::DeleteFile(PathIn(store, aside.name))) {
      std::printf("removed  %s: the rebuilt index covers its days\n", aside.name.c_str());
    }
  }
  std::printf("%s storage.index.db: %s, %s, %s from %s\n", listing.has_index ? "rebuilt" : "wrote",
              Counted(index.tree().GetCount(), "day").c_str(),
              Counted(totals.blocks, "block").c_str(), Counted(totals.events, "event").c_str(),
              Counted(files.size(), "day file").c_str());
  if (totals.lost_blocks != 0) {
    PrintError(Counted(totals.lost_blocks, "damaged block") + " could not be indexed");
  }
  if (totals.damaged_spans != 0) {
    PrintError(totals.damaged_spans == 1
                   ? std::string("1 damaged stretch of day files holds no whole block")
                   : FormatCount(totals.damaged_spans) +
                         " damaged stretches of day files hold no whole block");
  }
  if (totals.skipped_files != 0) {
    PrintError(Counted(totals.skipped_files, "file") + " named like day files could not be read");
  }
  if (totals.still_aside != 0) {
    PrintError(Counted(totals.still_aside, "set-aside file") + " could not be brought back");
  }
  const bool clean = totals.lost_blocks == 0 && totals.damaged_spans == 0 &&
                     totals.skipped_files == 0 && totals.still_aside == 0;
  return clean ? 0 : 1;
}

}  // namespace

std::unique_ptr<Command> MakeRecoverCommand() {
  return MakeStoreCommand(
      "recover", "Rebuild storage.index.db from the day files",
      std::string("Brings back the files the store set aside (*.unreadable) where they read "
                  "again, then writes the index from every block that decodes. ") +
          kOfflineNote + " The store must be closed.",
      RunRecover);
}

}  // namespace Tarn::Tool
