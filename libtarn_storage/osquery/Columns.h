#pragma once

#include <cstdint>
#include <string_view>

namespace Tarn::Storage::OSQuery {

// The columns a query asks for: up to 32 names, each kept as its hash and a
// view of the name. Entries past `count` have hash 0, which ends the list.
struct ColumnSelection {
  static constexpr uint32_t kMaxColumns = 32;

  uint32_t count = 0;
  uint32_t hashes[kMaxColumns] = {};
  std::string_view names[kMaxColumns] = {};
};

// Splits a query's comma-separated column text at every "," with no
// trimming; an empty text gives the single entry "*" (every column). Names
// past the 32nd are dropped and logged. The views point into `text`.
ColumnSelection SplitColumns(std::string_view text);

// A name no table has: a requester that adds it to its columns also gets,
// in the message field "positions", each row's store position (u64, little
// endian, in row order), which names the event for as long as the store
// holds it. Converters pass over it like any name that is not a column.
constexpr std::string_view kPositionsColumn = "@position";
bool AsksForPositions(const ColumnSelection& columns);

}  // namespace Tarn::Storage::OSQuery
