#pragma once

#include <cstdint>
#include <string>

#include "Tarn/Events/Base.h"

namespace Tarn::Storage::OSQuery {

// One table query as the service takes it over: the handler owns it for the
// length of the call, and the column names it hands out view its texts.
struct Query {
  static constexpr uint64_t kNoToken = ~uint64_t{0};

  bool local = false;       // answer on the in-process mock bus
  std::string table;        // "edr_process_create"
  std::string columns;      // comma-separated; empty: every column
  std::string constraints;  // constraints JSON
  uint64_t token = kNoToken;  // position to resume from
  uint16_t page = 0;          // continuation requests made so far

  bool HasToken() const { return token != kNoToken; }

  // Reads a type-221 query record. False (logged), with `out` untouched,
  // when the event is not a whole one.
  static bool FromRecord(const Events::Objects::Base& event, Query& out);
};

}  // namespace Tarn::Storage::OSQuery
