#pragma once

// Turns events in the JSON lines form `tarn export` writes into the record
// file every contender is fed (RecordFile.h), the way `tarn ingest --from`
// turns them into the records it hands the store.

#include <cstdint>
#include <string>

namespace Tarn::Bench {

struct CorpusInfo {
  uint64_t events = 0;
  uint64_t record_bytes = 0;
  uint64_t json_bytes = 0;  // the lines, newlines included
  int64_t first_ms = 0;
  int64_t last_ms = 0;
};

// Reads `json_path` and writes `records_path`. The lines must be in time
// order, as an export writes them. False with `error` naming the line.
bool MakeRecordFile(const std::string& json_path, const std::string& records_path, CorpusInfo& info,
                    std::string& error);

}  // namespace Tarn::Bench
