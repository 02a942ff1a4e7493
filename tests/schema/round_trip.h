#pragma once

// Checks the generated round-trip test runs for every table: a row becomes a
// record (generated builder), the record a row again (generated converter),
// and each column filters that record (generated matcher).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include "Keel/Utils/TreeContainer.h"
#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/EventHeader.h"
#include "osquery/Columns.h"
#include "osquery/ConstraintsList.h"
#include "osquery/Converter.h"
#include "osquery/Matcher.h"
#include "osquery/RecordBuilder.h"
#include "osquery/Tables.h"

namespace Tarn::Storage::OSQuery {

// Builds the record of `row`, checks its header, converts it back with every
// column selected and parses the serialized row into `back`.
inline testing::AssertionResult RoundTrip(const google::protobuf::Message& row, uint32_t type_id,
                                          uint16_t version, google::protobuf::Message& back,
                                          std::vector<uint8_t>& record) {
  Events::DynamicEventBuilder builder;
  if (!BuildRecord(row, builder)) return testing::AssertionFailure() << "record not built";
  record.assign(builder.Data(), builder.Data() + builder.Size());
  Events::Objects::Base event(record.data(), record.size());
  if (event.TypeId() != type_id) return testing::AssertionFailure() << "type " << event.TypeId();
  if (event.Header().Version() != version || !IsSupportedVersion(type_id, version)) {
    return testing::AssertionFailure() << "version " << event.Header().Version();
  }
  google::protobuf::Arena arena;
  google::protobuf::Message* converted = ConvertEvent(&arena, event, SplitColumns(""));
  if (converted == nullptr || converted->GetDescriptor() != back.GetDescriptor()) {
    return testing::AssertionFailure() << "not converted to " << back.GetDescriptor()->name();
  }
  std::string bytes;
  if (!converted->SerializeToString(&bytes) || !back.ParseFromString(bytes)) {
    return testing::AssertionFailure() << "row does not serialize and parse";
  }
  return testing::AssertionSuccess();
}

inline bool Matches(const std::vector<uint8_t>& record, std::string_view column,
                    std::string_view affinity, uint32_t op, std::string_view expr) {
  Keel::Utils::TreeContainer json;
  auto filter = json.Root().InsertChild(column);
  filter.Set("affinity", affinity);
  auto item = filter.InsertChild("list").AppendChild();
  item.Set("op", op);
  item.Set("expr", expr);
  ConstraintsList constraints;
  EXPECT_TRUE(constraints.Parse(json.Dump())) << column;
  return MatchEvent(Events::Objects::Base(record.data(), record.size()), constraints);
}

// `value` is the column's value in the row's text form.
inline void ExpectFilters(const std::vector<uint8_t>& record, std::string_view column,
                          ColumnKind kind, std::string_view value) {
  switch (kind) {
    case ColumnKind::kDateTime:
      // Narrowed by the scan's time range, never by the matcher.
      EXPECT_TRUE(Matches(record, column, "unsigned bigint", 2, "1")) << column;
      return;
    case ColumnKind::kUInt32:
    case ColumnKind::kUInt64: {
      std::string next = std::to_string(std::stoull(std::string(value)) + 1);
      EXPECT_TRUE(Matches(record, column, "unsigned bigint", 2, value)) << column;
      EXPECT_FALSE(Matches(record, column, "unsigned bigint", 2, next)) << column;
      EXPECT_TRUE(Matches(record, column, "unsigned bigint", 16, next)) << column;
      EXPECT_FALSE(Matches(record, column, "unsigned bigint", 4, value)) << column;
      return;
    }
    default: {
      std::string longer = std::string(value) + "x";
      EXPECT_TRUE(Matches(record, column, "text", 2, value)) << column;
      EXPECT_FALSE(Matches(record, column, "text", 2, longer)) << column;
      EXPECT_TRUE(Matches(record, column, "text", 16, longer)) << column;
      EXPECT_TRUE(Matches(record, column, "text", 65, value)) << column;
      return;
    }
  }
}

}  // namespace Tarn::Storage::OSQuery
