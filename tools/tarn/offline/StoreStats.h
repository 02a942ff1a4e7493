#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tarn/offline/StoreFiles.h"

namespace Tarn::Tool {

struct DayStats {
  uint16_t day = 0;
  uint32_t blocks = 0;
  uint64_t events = 0;
  uint64_t file_bytes = 0;   // its day files on disk
  uint64_t block_bytes = 0;  // its blocks as stored, headers included
  uint64_t raw_bytes = 0;    // its blocks decoded
  uint32_t first_second = 0;
  uint32_t last_second = 0;
};

// The numbers of a store, read from its files (the index, the block headers
// and, when asked for, every block decoded for its events' tables).
struct StoreStats {
  IndexState index = IndexState::kMissing;
  StoreListing listing;
  std::vector<DayStats> days;
  uint64_t blocks = 0;
  uint64_t events = 0;
  uint64_t block_bytes = 0;
  uint64_t raw_bytes = 0;
  uint64_t unreadable_blocks = 0;  // headers or payloads that did not read
  uint64_t pending_events = 0;     // in "storage.final.db", put in a block at the next start
  uint64_t loose_files = 0;        // day files the index does not name
  uint64_t loose_bytes = 0;
  int64_t first_ms = 0;  // the stored time window, to the second
  int64_t last_ms = 0;
  bool by_table_counted = false;
  std::map<std::string, uint64_t> by_table;  // table name (or "type N") -> events

  // Stored bytes of the blocks per raw byte: 0.25 means four times smaller.
  double Ratio() const {
    return raw_bytes == 0 ? 0 : static_cast<double>(block_bytes) / static_cast<double>(raw_bytes);
  }
};

// False, with `error`, only when the directory cannot be read at all.
bool GatherStats(const std::string& directory, bool count_tables, StoreStats& stats,
                 std::string& error);

// The text form `tarn info` prints; `top_tables` 0 lists every table.
std::string FormatStats(const std::string& directory, const StoreStats& stats, size_t top_tables);
// The JSON form of `tarn info --json`.
std::string StatsJson(const std::string& directory, const StoreStats& stats);

}  // namespace Tarn::Tool
