#include "peers/RowsFromRecords.h"

#include "Tarn/Events/Base.h"
#include "osquery/Converter.h"

namespace Tarn::Bench {

namespace {
// The arena is emptied every so many rows.
constexpr uint32_t kRowsPerArena = 1024;
}  // namespace

RowsFromRecords::RowsFromRecords(std::string_view columns) : columns_text_(columns) {
  columns_ = Storage::OSQuery::SplitColumns(columns_text_);
}

const google::protobuf::Message* RowsFromRecords::Row(const uint8_t* record, uint32_t size) {
  if (++on_arena_ == kRowsPerArena) {
    arena_.Reset();
    on_arena_ = 0;
  }
  return Storage::OSQuery::ConvertEvent(&arena_, Events::Objects::Base(record, size), columns_);
}

}  // namespace Tarn::Bench
