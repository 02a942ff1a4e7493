// tarn recover: rebuilds storage.index.db from the day files of a closed
// store. The day files are only read; the index is written the way the store
// writes it (a temporary file renamed over the old one).

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>

#include "Keel/Utils/String.h"
#include "manager/writer/Settings.h"
#include "manager/index/TimeIndex.h"
#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/cli/Progress.h"
#include "tarn/offline/StoreFiles.h"
#include "tarn/offline/StoreLock.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {




using Storage::BlockHeader;
using Storage::BlockInfo;
using Storage::RawBlockView;
using Storage::WalkedBlock;

struct ScannedFile {
  uint16_t day = 0;
  uint8_t version = 0;
  uint64_t end = 0;  // after its last whole block
  std::vector<BlockInfo> blocks;
  uint64_t events = 0;
};

struct Totals {
  uint64_t blocks = 0;
  uint64_t events = 0;
  uint64_t lost_blocks = 0;
  uint64_t skipped_files = 0;
  uint64_t newest = 0;  // epoch seconds of the last event
};

// Walks the blocks of one day file from its header on. A block that does not
// decode is passed over when its header still says where the next one
// starts; a header that cannot be a block's ends the walk (a torn tail).
bool ScanFile(const std::string& directory, const DayFileEntry& file, ScannedFile& scanned,
              Totals& totals, uint64_t& done, Progress& progress) {
  DayFileReader reader;
  Storage::DayFileCheck check;
  if (!reader.Open(directory + "/" + file.name, check)) {
    std::printf("skipped  %s: not a day file of this store (bad header)\n", file.name.c_str());
    ++totals.skipped_files;
    return false;
  }
  scanned.day = file.day;
  scanned.version = file.version;
  // A block that does not decode is passed over while its header still says
  // where the next one starts.
  uint64_t done_before = done;
  const uint64_t offset = reader.Walk(Storage::kDayFileHeaderSize, [&](const WalkedBlock& block) {
    if (block.decoded) {
      const RawBlockView& view = block.view;
      uint32_t count = view.EventCount();
      scanned.blocks.push_back(BlockInfo{static_cast<uint32_t>(block.offset), count,
                                         view.Second(0), view.Second(count - 1), file.version});
      scanned.events += count;
      totals.newest =
          std::max(totals.newest, Storage::ToEpochSeconds(file.day, view.Second(count - 1)));
    } else {
      std::printf(
          "lost     %s: the block at offset %llu does not decode; its events are not "
          "indexed\n",
          file.name.c_str(), static_cast<unsigned long long>(block.offset));
      ++totals.lost_blocks;
    }
    done = done_before + block.End() - Storage::kDayFileHeaderSize;
    progress.Update(done);
    return true;
  });
  scanned.end = offset;
  if (scanned.blocks.empty()) {
    std::printf(
        "empty    %s: no block of it can be indexed; the store keeps the file aside "
        "and deletes it first when it needs room\n",
        file.name.c_str());
  } else if (reader.Size() > offset) {
    std::printf(
        "tail     %s: %s bytes after the last whole block (the store cuts them at its "
        "next start)\n",
        file.name.c_str(), FormatCount(reader.Size() - offset).c_str());
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
      info.setOnDiskSize(f->version, f->end);
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
  uint64_t total = 0;
  for (const DayFileEntry& file : listing.day_files) total += file.size;
  Progress progress("recover", total, "bytes");
  std::vector<ScannedFile> files;
  Totals totals;
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
  std::printf("%s storage.index.db: %s days, %s blocks, %s events from %zu day files\n",
              listing.has_index ? "rebuilt" : "wrote", FormatCount(index.tree().GetCount()).c_str(),
              FormatCount(totals.blocks).c_str(), FormatCount(totals.events).c_str(), files.size());
  if (totals.lost_blocks != 0) {
    PrintError(Counted(totals.lost_blocks, "damaged block") + " could not be indexed");
  }
  if (totals.skipped_files != 0) {
    PrintError(Counted(totals.skipped_files, "file") + " named like day files could not be read");
  }
  if (totals.lost_blocks != 0 || totals.skipped_files != 0) return 1;
  return 0;
}

}  // namespace

std::unique_ptr<Command> MakeRecoverCommand() {
  return MakeStoreCommand(
      "recover", "Rebuild storage.index.db from the day files",
      std::string("Only the index file is written. ") + kOfflineNote + " The store must be closed.",
      RunRecover);
}

}  // namespace Tarn::Tool
