#pragma once

// The store's files read directly with the store's own format code, for the
// commands that work on a closed store (info, verify, recover, dump-index)
// and for what the tool must know before it opens one.

#include <cstdint>
#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "manager/format/DayFile.h"
#include "manager/format/DayFileReader.h"
#include "manager/format/EventsBlock.h"
#include "manager/index/Index.h"

namespace Tarn::Tool {

struct DayFileEntry {
  uint16_t day = 0;
  uint8_t version = 0;
  std::string name;
  uint64_t size = 0;
};

// A store file that the store set aside because it kept failing to read.
struct AsideEntry {
  std::string name;      // as it lies in the directory
  std::string original;  // the name it had
  uint64_t size = 0;
};

// What the storage directory holds, by kind of file.
struct StoreListing {
  std::vector<DayFileEntry> day_files;  // by day, then version
  std::vector<AsideEntry> aside;        // by name
  bool has_index = false;
  uint64_t index_size = 0;
  bool has_final = false;
  uint64_t final_size = 0;
  uint64_t other_size = 0;  // lock file, telemetry reports, temporary files
  uint64_t total_size = 0;

  const DayFileEntry* Find(uint16_t day, uint8_t version) const;
};

// False, with `error` in words, when the directory cannot be listed.
bool ListStore(const std::string& directory, StoreListing& listing, std::string& error);

enum class IndexState { kMissing, kUnusable, kLoaded };

// Loads "storage.index.db" into `index` (a fresh Index). `records` gets the
// record count the file's header announces, so that skipped records show.
IndexState LoadIndexFile(const std::string& directory, Storage::Index& index, uint32_t& records);

// Blocks the loaded index holds, over every day.
uint64_t IndexedBlocks(Storage::Index& index);

// Day files are read through the store's own reader.
using Storage::DayFileReader;

// The newest stored time the store knows of, in milliseconds: the index's
// last event time, its blocks' last seconds, the block waiting in
// "storage.final.db" and the days of day files the index does not name. 0
// for an empty or missing store. The store wipes itself when it starts with
// a clock behind its newest day, so the tool's clock never goes below this.
int64_t NewestStoredMs(const std::string& directory);

}  // namespace Tarn::Tool
