// The JSON lines form of rows, without a store: what Write gives, Parse
// takes back unchanged, and what Parse refuses it says in words.

#include <google/protobuf/message.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "osquery/Tables.h"
#include "tarn/import/RowJson.h"
#include "tools/edge_rows.h"

namespace Tarn::Tool {
namespace {

using google::protobuf::Message;

TEST(RowJson, EveryTableAndEdgeComesBackUnchanged) {
  RowJson source;
  RowJson reader;
  for (const auto& table : Storage::OSQuery::AllTables()) {
    for (auto edge :
         {tarn::test::Edge::kLargest, tarn::test::Edge::kEmpty, tarn::test::Edge::kMixed}) {
      Message* row = source.Blank(table.name);
      ASSERT_NE(row, nullptr) << table.name;
      tarn::test::FillEdges(*row, table, 1'700'000'000'123, edge);
      const std::string line = RowJson::Write(*row);
      Message* back = nullptr;
      std::string error;
      ASSERT_TRUE(reader.Parse(line, back, error)) << table.name << ": " << error;
      EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(*row, *back)) << line;
      EXPECT_EQ(RowJson::Write(*back), line);
    }
  }
}

TEST(RowJson, WritesTheTableFirstThenEveryColumnInSchemaOrderAsNumbersAndTexts) {
  RowJson rows;
  const auto* table =
      Storage::OSQuery::FindTable(Storage::OSQuery::TableIdByName("edr_process_create"));
  ASSERT_NE(table, nullptr);
  Message* row = rows.Blank("edr_process_create");
  tarn::test::FillEdges(*row, *table, 1'700'000'000'123, tarn::test::Edge::kLargest);
  const std::string line = RowJson::Write(*row);
  nlohmann::ordered_json json = nlohmann::ordered_json::parse(line);
  auto it = json.begin();
  EXPECT_EQ(it.key(), "table");
  EXPECT_EQ(it.value(), "edr_process_create");
  ++it;
  for (const auto& column : table->Columns()) {
    ASSERT_NE(it, json.end());
    EXPECT_EQ(it.key(), column.name);
    ++it;
  }
  EXPECT_EQ(it, json.end());
  // A uint64 stays a number with all its digits, not a string or a double.
  EXPECT_TRUE(json["puid"].is_number_unsigned());
  EXPECT_NE(line.find("\"puid\":18446744073709551612"), std::string::npos) << line;
  EXPECT_TRUE(json["path"].is_string());
}

TEST(RowJson, ReadsOtherSpellingsOfTheSameValues) {
  RowJson rows;
  Message* row = nullptr;
  std::string error;
  // date_time as ISO 8601, a 64-bit number as a text of digits, keys in any order.
  ASSERT_TRUE(
      rows.Parse(R"({"pid": 7, "puid": "18446744073709551615", "table": "edr_process_create",)"
                 R"( "date_time": "2026-11-20T10:00:00.250Z"})",
                 row, error))
      << error;
  const std::string line = RowJson::Write(*row);
  EXPECT_NE(line.find("\"date_time\":1795168800250"), std::string::npos) << line;
  EXPECT_NE(line.find("\"puid\":18446744073709551615"), std::string::npos) << line;
  EXPECT_NE(line.find("\"pid\":7"), std::string::npos) << line;
  // Digits in a text are a number in date_time too; addresses as Windows
  // writes them: "-" for none, a zone suffix, capitals.
  ASSERT_TRUE(rows.Parse(R"({"table": "edr_email_sent", "date_time": "1795168800250",)"
                         R"( "local_ip": "-", "remote_ip": "FE80::1%12"})",
                         row, error))
      << error;
  EXPECT_NE(RowJson::Write(*row).find("\"date_time\":1795168800250"), std::string::npos);
  // Columns left out are zero or empty, whatever the row held before.
  ASSERT_TRUE(rows.Parse(R"({"table": "edr_process_create", "date_time": 1})", row, error));
  EXPECT_NE(RowJson::Write(*row).find("\"pid\":0"), std::string::npos);
}

TEST(RowJson, RefusesWhatCannotBeStoredAndSaysWhy) {
  struct Case {
    const char* line;
    const char* says;
  } cases[] = {
      {"not json", "not valid JSON"},
      {"[1, 2]", "not a JSON object"},
      {R"({"date_time": 1})", "no \"table\""},
      {R"({"table": "edr_no_such_thing", "date_time": 1})", "unknown table \"edr_no_such_thing\""},
      {R"({"table": "edr_process_create"})", "no \"date_time\""},
      {R"({"table": "edr_process_create", "date_time": 1, "pidd": 1})", "has no column 'pidd'"},
      {R"({"table": "edr_process_create", "date_time": 1, "pid": -1})", "column 'pid' takes"},
      {R"({"table": "edr_process_create", "date_time": 1, "pid": 4294967296})", "4294967295"},
      {R"({"table": "edr_process_create", "date_time": 1, "pid": 1.5})", "column 'pid' takes"},
      {R"({"table": "edr_process_create", "date_time": 1, "pid": "12a"})", "column 'pid' takes"},
      {R"({"table": "edr_process_create", "date_time": 1, "path": 5})", "'path' takes a text"},
      {R"({"table": "edr_process_create", "date_time": 1, "path": "a\u0000b"})", "NUL"},
      {R"({"table": "edr_process_create", "date_time": "yesterday"})", "date_time takes"},
      {R"({"table": "edr_email_sent", "date_time": 1, "remote_ip": "10.0.0.256"})",
       "'remote_ip' takes an IPv4 or IPv6 address"},
      {R"({"table": "edr_process_create", "date_time": 1, "command_line_indexes": "1,,2"})",
       "whole numbers joined by"},
  };
  RowJson rows;
  for (const Case& c : cases) {
    Message* row = nullptr;
    std::string error;
    EXPECT_FALSE(rows.Parse(c.line, row, error)) << c.line;
    EXPECT_EQ(row, nullptr);
    EXPECT_NE(error.find(c.says), std::string::npos) << c.line << " -> " << error;
  }
}

}  // namespace
}  // namespace Tarn::Tool
