#include <cstring>
#include <string>
#include <vector>

#include <google/protobuf/arena.h>
#include <gtest/gtest.h>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/Record.h"
#include "osquery/AddRow.h"
#include "osquery/Converter.h"
#include "osquery/NameHash.h"
#include "osquery/RecordBuilder.h"
#include "osquery/RecordColumns.h"
#include "support/log_capture.h"
#include "support/row_columns.h"
#include "test_records.h"

namespace Tarn::Storage::OSQuery {
namespace {

using tarn::test::MakeRow;
using tarn::test::NumberColumn;
using tarn::test::SetColumn;
using tarn::test::TextColumn;
using test::TestRecord;

// Converts through AddRow, as a query does, and reads the row back as a
// message of the record's table. Rows of ordinary records, under every kind
// of column selection, are held against a model in store_model_test.cpp.
class RowTest : public testing::Test {
 protected:
  RowTest() : response_(msg_) {
    response_.buffer.Create(1024, 1024, Keel::Collections::GrowType::Linear, 512);
    scratch_.Create(0);
  }

  std::unique_ptr<google::protobuf::Message> Convert(const std::vector<uint8_t>& record,
                                                     std::string_view columns) {
    std::unique_ptr<google::protobuf::Message> row(
        RowPrototype(Events::Record::LoadUInt32(record.data()))->New());
    uint64_t start = response_.buffer.Size();
    EXPECT_EQ(AddRow(Events::Objects::Base(record.data(), record.size()), response_,
                     SplitColumns(columns), settings_, scratch_),
              kRowAdded);
    const uint8_t* data = response_.buffer.Data() + start;
    uint32_t size = Events::Record::LoadUInt32(data);
    EXPECT_EQ(response_.buffer.Size(), start + 4 + size);
    EXPECT_TRUE(row->ParseFromArray(data + 4, static_cast<int>(size)));
    return row;
  }

  hx::MessageBus::Msg msg_;
  ResponseBuilder response_;
  Keel::Collections::Buffer scratch_;
  OSQuerySettings settings_;
};

std::vector<uint8_t> ProcessRecord() {
  return TestRecord("edr_process_create", 1700000000123ull)
      .Number("pid", 4242)
      .Number("puid", 0xFFFFFFFFFFFFFFFFull)
      .Number("user_uid", 0xFFFFFFFFu)
      .Text("path", "/usr/bin/ssh")
      .Text("command_line", "ssh -p 22 host")
      .Numbers("command_line_indexes", {0, 18446744073709551615ull, 7})
      .Build();
}

TEST_F(RowTest, InvalidUtf8IsReplaced) {
  auto r = TestRecord("edr_process_create")
               .Text("path", "\xC3\x28")
               .Text("command_line", "caf\xC3\xA9")
               .Build();
  auto row = Convert(r, "path,command_line");
  EXPECT_EQ(TextColumn(*row, "path"), "<invalid_utf8_string>");
  EXPECT_EQ(TextColumn(*row, "command_line"), "caf\xC3\xA9");
  for (const char* bad : {"\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "ab\xE2\x82"}) {
    auto b = TestRecord("edr_process_create").Text("path", bad).Build();
    EXPECT_EQ(TextColumn(*Convert(b, "path"), "path"), "<invalid_utf8_string>");
  }
}

TEST_F(RowTest, TextListsAreJoinedWithQuotedItems) {
  auto r = TestRecord("edr_email_sent")
               .List("gateway_macs", {"aa:01", "b,b", "cc"})
               .List("attachements_names", {"say \"hi\", then", "plain \"q\"", ""})
               .List("attachements_content_type", {"only"})
               .Build();
  auto row = Convert(r, "gateway_macs,attachements_names,attachements_content_type,"
                        "attachment_ur_is");
  EXPECT_EQ(TextColumn(*row, "gateway_macs"), "aa:01,\"b,b\",cc");
  EXPECT_EQ(TextColumn(*row, "attachements_names"), "\"say \"\"hi\"\", then\",plain \"q\",");
  EXPECT_EQ(TextColumn(*row, "attachements_content_type"), "only");
  EXPECT_EQ(TextColumn(*row, "attachment_ur_is"), "");
  // An invalid item spoils the whole column.
  auto bad = TestRecord("edr_email_sent").List("gateway_macs", {"ok", "\xFF"}).Build();
  EXPECT_EQ(TextColumn(*Convert(bad, "gateway_macs"), "gateway_macs"), "<invalid_utf8_string>");
}

TEST_F(RowTest, CorruptRecordsGiveEmptyFields) {
  auto r = ProcessRecord();
  // Every slot of the fixed part points outside the record or is cut off.
  Events::Record::StoreUInt16(r.data() + Events::Record::kSizeOffset, 40);
  auto row = Convert(r, "");
  EXPECT_EQ(NumberColumn(*row, "date_time"), 1700000000123ull);
  EXPECT_EQ(NumberColumn(*row, "pid_time_stamp"), 0u);
  EXPECT_EQ(NumberColumn(*row, "pid"), 0u);  // its slot ends at 44, past the claimed size
  EXPECT_EQ(TextColumn(*row, "path"), "");
  EXPECT_EQ(TextColumn(*row, "command_line_indexes"), "");
}

TEST_F(RowTest, ARowThatDoesNotFitLeavesTheBufferUnchanged) {
  auto r = ProcessRecord();
  Events::Objects::Base event(r.data(), r.size());
  ResponseBuilder small(msg_);
  ASSERT_TRUE(small.buffer.Create(64, 64, Keel::Collections::GrowType::Linear, 512));
  ASSERT_TRUE(small.buffer.PushFill(1, 9));
  // pid alone fits (4 + 3 bytes), the whole row does not.
  EXPECT_EQ(AddRow(event, small, SplitColumns("pid"), settings_, scratch_), kRowAdded);
  std::vector<uint8_t> before(small.buffer.Data(), small.buffer.Data() + small.buffer.Size());
  EXPECT_EQ(AddRow(event, small, SplitColumns(""), settings_, scratch_), kRowBufferFull);
  EXPECT_EQ(small.rows, 1u);
  EXPECT_EQ(small.last_row, 9u);
  ASSERT_EQ(small.buffer.Size(), before.size());
  EXPECT_EQ(std::memcmp(small.buffer.Data(), before.data(), before.size()), 0);
}

TEST_F(RowTest, EventsWithoutAConverterFail) {
  tarn::test::LogCapture log;
  auto r = ProcessRecord();
  Events::Record::StoreUInt32(r.data(), 3);  // an id without a table
  EXPECT_EQ(AddRow(Events::Objects::Base(r.data(), r.size()), response_, SplitColumns(""),
                   settings_, scratch_),
            kRowFailed);
  EXPECT_EQ(response_.rows, 0u);
  EXPECT_EQ(response_.buffer.Size(), 0u);
  google::protobuf::Arena arena;
  EXPECT_EQ(ConvertEvent(&arena, Events::Objects::Base(r.data(), r.size()), SplitColumns("")),
            nullptr);
  EXPECT_GE(log.CountFrom(Keel::Log::StorageQuery, Keel::Log::Warning), 2u);
}

TEST_F(RowTest, JsonRenderingGoesToTheDebugLog) {
  tarn::test::LogCapture log;
  Convert(ProcessRecord(), "");
  EXPECT_EQ(log.CountFrom(Keel::Log::StorageQuery, Keel::Log::Debug), 0u);
  settings_.aux_flag = true;
  Convert(ProcessRecord(), "");
  auto records = log.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].values[0], 107u);
  EXPECT_GT(records[0].values[1], 100u);  // the JSON text's length
}

TEST(ColumnSelection, SplitAtEveryComma) {
  ColumnSelection none = SplitColumns("");
  ASSERT_EQ(none.count, 1u);
  EXPECT_EQ(none.hashes[0], kAllColumnsHash);
  ColumnSelection s = SplitColumns("pid, path,,pid");
  ASSERT_EQ(s.count, 4u);
  EXPECT_EQ(s.names[1], " path");  // no trimming
  EXPECT_EQ(s.names[2], "");
  EXPECT_EQ(s.hashes[3], NameHash("pid"));
  EXPECT_EQ(s.hashes[4], 0u);
  std::string many;
  for (int i = 0; i < 40; ++i) many += (i ? ",c" : "c") + std::to_string(i);
  tarn::test::LogCapture log;
  ColumnSelection capped = SplitColumns(many);
  EXPECT_EQ(capped.count, 32u);
  EXPECT_EQ(capped.names[31], "c31");
  EXPECT_EQ(log.Records().size(), 1u);
}

TEST(RecordColumns, TextListsSplitAsTheyAreJoined) {
  using Items = std::vector<std::string>;
  EXPECT_EQ(SplitTextList(""), Items{});
  EXPECT_EQ(SplitTextList("a"), Items{"a"});
  EXPECT_EQ(SplitTextList("a,,b,"), (Items{"a", "", "b", ""}));
  EXPECT_EQ(SplitTextList("a,\"b,c\",d"), (Items{"a", "b,c", "d"}));
  EXPECT_EQ(SplitTextList("\"x \"\"y\"\", z\""), Items{"x \"y\", z"});
  EXPECT_EQ(SplitTextList("c\"d,e"), (Items{"c\"d", "e"}));
  // A quote that does not close an item is text.
  EXPECT_EQ(SplitTextList("\"ab,c"), (Items{"\"ab", "c"}));
  EXPECT_EQ(SplitTextList("\"a\"b,c"), (Items{"\"a\"b", "c"}));
}

TEST(RecordColumns, BuilderRejectsWhatItCannotStore) {
  Events::DynamicEventBuilder b;
  auto bad_address = MakeRow("edr_email_sent");
  SetColumn(*bad_address, "local_ip", "10.0.0.300");
  EXPECT_FALSE(BuildRecord(*bad_address, b));
  auto bad_numbers = MakeRow("edr_process_create");
  SetColumn(*bad_numbers, "command_line_indexes", "1,x");
  EXPECT_FALSE(BuildRecord(*bad_numbers, b));
  SetColumn(*bad_numbers, "command_line_indexes", "1,,2");
  EXPECT_FALSE(BuildRecord(*bad_numbers, b));
  SetColumn(*bad_numbers, "command_line_indexes", "1,2");
  EXPECT_TRUE(BuildRecord(*bad_numbers, b, 9));
  EXPECT_EQ(b.Event().Header().Version(), 9u);
  auto huge = MakeRow("edr_process_create");
  SetColumn(*huge, "path", std::string(70000, 'a'));
  EXPECT_FALSE(BuildRecord(*huge, b));
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
