#pragma once

// Rows whose every column sits at an edge of its kind: the largest numbers
// (a uint64 beyond what a double holds exactly), texts with quotes,
// backslashes, control characters and non-ASCII letters, both address
// families, list items that hold a comma or quotes, or all of it empty.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <string>

#include "osquery/Tables.h"

namespace tarn::test {

enum class Edge { kLargest, kEmpty, kMixed };

inline void FillEdges(google::protobuf::Message& row,
                      const Tarn::Storage::OSQuery::TableInfo& table, uint64_t time_ms, Edge edge) {
  using Tarn::Storage::OSQuery::ColumnKind;
  const auto* descriptor = row.GetDescriptor();
  const auto* reflection = row.GetReflection();
  for (const auto& column : table.Columns()) {
    const auto* field = descriptor->FindFieldByNumber(column.field);
    const uint64_t n = column.field;
    switch (column.kind) {
      case ColumnKind::kDateTime: reflection->SetUInt64(&row, field, time_ms); break;
      case ColumnKind::kUInt32:
        reflection->SetUInt32(&row, field,
                              edge == Edge::kLargest ? 4294967295u - static_cast<uint32_t>(n)
                              : edge == Edge::kEmpty ? 0u
                                                     : static_cast<uint32_t>(n * 7));
        break;
      case ColumnKind::kUInt64:
        reflection->SetUInt64(&row, field,
                              edge == Edge::kLargest ? 18446744073709551615ull - n
                              : edge == Edge::kEmpty ? 0ull
                                                     : (1ull << 53) + 1 + n);
        break;
      case ColumnKind::kText:
        reflection->SetString(
            &row, field,
            edge == Edge::kEmpty ? ""
            : edge == Edge::kLargest
                ? std::string("t\xC3\xABxt \"q\" back\\slash\ttab \xE6\xBC\xA2 ") + column.name
                : std::string(column.name));
        break;
      case ColumnKind::kAddress:
        reflection->SetString(&row, field,
                              edge == Edge::kEmpty ? ""
                              : edge == Edge::kLargest
                                  ? (n % 2 ? "2001:db8::1:2" : "::ffff:10.0.0.1")
                                  : "198.51.100.7");
        break;
      case ColumnKind::kTextList:
        reflection->SetString(&row, field,
                              edge == Edge::kEmpty     ? ""
                              : edge == Edge::kLargest ? "alpha,\"with, comma\",say \"hi\""
                                                       : "one");
        break;
      case ColumnKind::kNumberList:
        reflection->SetString(&row, field,
                              edge == Edge::kEmpty     ? ""
                              : edge == Edge::kLargest ? "0,18446744073709551615,42"
                                                       : "7");
        break;
    }
  }
}

}  // namespace tarn::test
