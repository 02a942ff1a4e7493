#include "osquery/Columns.h"

#include "Keel/Log.h"
#include "osquery/NameHash.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kTooManyColumns = 20,  // a = columns text length
};

}  // namespace

ColumnSelection SplitColumns(std::string_view text) {
  ColumnSelection selection;
  if (text.empty()) text = "*";
  size_t start = 0;
  while (true) {
    size_t comma = text.find(',', start);
    std::string_view name = text.substr(start, comma == std::string_view::npos ? comma
                                                                               : comma - start);
    if (selection.count == ColumnSelection::kMaxColumns) {
      KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kTooManyColumns, text.size(), 0, 0);
      break;
    }
    selection.hashes[selection.count] = NameHash(name);
    selection.names[selection.count] = name;
    ++selection.count;
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return selection;
}

}  // namespace Tarn::Storage::OSQuery

namespace Tarn::Storage::OSQuery {

bool AsksForPositions(const ColumnSelection& columns) {
  for (uint32_t i = 0; i < columns.count; ++i) {
    if (columns.names[i] == kPositionsColumn) return true;
  }
  return false;
}

}  // namespace Tarn::Storage::OSQuery
