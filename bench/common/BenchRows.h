#pragma once

// Rows of a table made by column name, through reflection on the table's
// generated prototype, and query answers read from their bytes: what the
// benchmarks need to make events and read what the store answers.

#include <google/protobuf/message.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Tarn::Bench {

// An empty row of `table`; null when no table has that name.
std::unique_ptr<google::protobuf::Message> MakeRow(std::string_view table);

// A uint32 column keeps the low 32 bits of `value`.
void SetColumn(google::protobuf::Message& row, std::string_view column, uint64_t value);
void SetColumn(google::protobuf::Message& row, std::string_view column, std::string value);

// A query answer: u8 format, u32 status, u32 row count, then rows each
// prefixed with its u32 length, all little-endian.
struct Answer {
  bool well_formed = false;  // header present and the rows fill the rest exactly
  uint32_t status = 0xFFFFFFFFu;
  uint32_t row_count = 0;
  std::vector<std::string_view> rows;  // views of the bytes parsed
};

Answer ParseAnswer(std::string_view bytes);

}  // namespace Tarn::Bench
