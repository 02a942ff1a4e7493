#pragma once

// Rows made from stored records with the store's own converter, for the
// contenders that keep the records as they are (RocksDB) and must turn them
// into columns to answer, as the store's query service does.

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>

#include <cstdint>
#include <string_view>

#include "osquery/Columns.h"

namespace Tarn::Bench {

class RowsFromRecords {
 public:
  // `columns` as a query names them; empty: every column.
  explicit RowsFromRecords(std::string_view columns);
  RowsFromRecords(const RowsFromRecords&) = delete;
  RowsFromRecords& operator=(const RowsFromRecords&) = delete;

  // The row of a record, valid until the next call; null when the record
  // has no table.
  const google::protobuf::Message* Row(const uint8_t* record, uint32_t size);

 private:
  std::string columns_text_;  // the selection's names point into it
  Storage::OSQuery::ColumnSelection columns_;
  google::protobuf::Arena arena_;
  uint32_t on_arena_ = 0;
};

}  // namespace Tarn::Bench
