#include <random>
#include <string>
#include <vector>

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include "Tarn/Events/Record.h"
#include "osquery/AddRow.h"
#include "osquery/Converter.h"
#include "osquery/Matcher.h"
#include "osquery/Tables.h"

namespace Tarn::Storage::OSQuery {
namespace {

// Arbitrary bytes as records: every table's matcher and converter must stay
// inside the record, and every row must be a valid message (texts UTF-8).
TEST(RandomInput, ArbitraryRecordsOfEveryTable) {
  std::mt19937_64 random(20240611);
  ConstraintsList constraints;
  ASSERT_TRUE(constraints.Parse(R"({
      "path": {"affinity": "text", "list": [{"op": 65, "expr": "%a%"}]},
      "local_ip": {"affinity": "text", "list": [{"op": 4, "expr": "1"}]},
      "gateway_macs": {"affinity": "text", "list": [{"op": 16, "expr": "~"}]},
      "notification_severities": {"affinity": "text", "list": [{"op": 32, "expr": ""}]},
      "pid": {"affinity": "bigint", "list": [{"op": 8, "expr": "-5"}]}})"));
  ConstraintsList none;
  std::vector<uint8_t> bytes;
  for (int round = 0; round < 20000; ++round) {
    const TableInfo& table = AllTables()[random() % AllTables().size()];
    // Lengths around the fixed part hit slots that are cut off.
    size_t size = random() % 2 ? table.fixed_size + random() % 64 : random() % 600;
    size = std::max<size_t>(size, 4);
    // Each byte is offset-like (small, pointing inside) or noise.
    bytes.resize(size);
    for (uint8_t& b : bytes) b = static_cast<uint8_t>(random() % 3 ? random() % 80 : random());
    Events::Record::StoreUInt32(bytes.data(), table.type_id);
    if (size >= 12 && random() % 4 != 0) {
      Events::Record::StoreUInt16(bytes.data() + 10, static_cast<uint16_t>(size));
    }
    Events::Objects::Base event(bytes.data(), bytes.size());

    EXPECT_TRUE(MatchEvent(event, none));
    MatchEvent(event, constraints);
    google::protobuf::Arena arena;
    google::protobuf::Message* row = ConvertEvent(&arena, event, SplitColumns(""));
    ASSERT_NE(row, nullptr);
    std::string serialized;
    ASSERT_TRUE(row->SerializeToString(&serialized));
    std::unique_ptr<google::protobuf::Message> back(row->New());
    ASSERT_TRUE(back->ParseFromString(serialized)) << table.name;  // proto3 checks UTF-8
  }
}

// Arbitrary texts as constraints: a parse either fails or yields only known
// operators whose values parsed.
TEST(RandomInput, ArbitraryConstraintTexts) {
  std::mt19937_64 random(77);
  const std::string pieces[] = {
      "{", "}", "[", "]", ",", ":", "\"path\"", "\"pid\"", "\"affinity\"", "\"list\"", "\"op\"",
      "\"expr\"", "\"text\"", "\"bigint\"", "\"double\"", "\"integer\"", "2", "65", "-1",
      "1e999", "\"%\"", "\"12\"", "\"\\u0000\"", "null", "true", " ", "\"\\\"",
      "99999999999999999999",
  };
  const std::string good = R"({"pid":{"affinity":"bigint","list":[{"op":2,"expr":"12"}]},)"
                           R"("path":{"affinity":"text","list":[{"op":65,"expr":"%x"}]}})";
  auto record = std::vector<uint8_t>(64, 0);
  Events::Record::StoreUInt32(record.data(), 107);
  Events::Record::StoreUInt16(record.data() + 10, 64);
  int parsed = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    if (round % 2 == 0) {
      for (int n = random() % 24; n > 0; --n) text += pieces[random() % std::size(pieces)];
    } else {
      text = good;  // mutate a valid text byte by byte
      for (int n = 1 + random() % 3; n > 0; --n) {
        size_t at = random() % text.size();
        switch (random() % 3) {
          case 0: text[at] = static_cast<char>(random()); break;
          case 1: text.erase(at, 1); break;
          default: text.insert(at, 1, static_cast<char>(random())); break;
        }
      }
    }
    ConstraintsList list;
    if (!list.Parse(text)) {
      EXPECT_TRUE(list.Empty());
      continue;
    }
    ++parsed;
    for (const Constraint& c : list) EXPECT_TRUE(IsOperatorCode(c.op));
    MatchEvent(Events::Objects::Base(record.data(), record.size()), list);
  }
  EXPECT_GT(parsed, 100);  // the mutations reach the matchers too
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
