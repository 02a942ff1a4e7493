#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tarn/Events/Record.h"
#include "osquery/ConstraintsList.h"
#include "osquery/Matcher.h"
#include "osquery/TextCompare.h"
#include "support/log_capture.h"
#include "test_records.h"

namespace Tarn::Storage::OSQuery {
namespace {

using test::TestRecord;

const uint8_t kV6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

std::vector<uint8_t> ProcessRecord() {
  return TestRecord("edr_process_create")
      .Number("pid", 42)
      .Number("puid", 0x8000000000000001ull)
      .Text("path", "C:\\Windows\\System32\\cmd.exe")
      .Text("command_line", "abc")
      .Numbers("command_line_indexes", {3, 17})
      .Build();
}

std::vector<uint8_t> EmailRecord() {
  return TestRecord("edr_email_sent")
      .Address("local_ip", Events::Address::V4(10, 0, 0, 1))
      .Address("remote_ip", Events::Address::V6(kV6))
      .List("gateway_macs", {"aa", "b,b", "cc"})
      .Build();
}

bool Match(const std::vector<uint8_t>& record, const std::string& constraints) {
  ConstraintsList list;
  EXPECT_TRUE(list.Parse(constraints)) << constraints;
  return MatchEvent(Events::Objects::Base(record.data(), record.size()), list);
}

bool Match1(const std::vector<uint8_t>& record, const std::string& column,
            const std::string& affinity, int op, const std::string& expr) {
  return Match(record, "{\"" + column + "\":{\"affinity\":\"" + affinity +
                           "\",\"list\":[{\"op\":" + std::to_string(op) + ",\"expr\":\"" + expr +
                           "\"}]}}");
}

TEST(TextCompare, ByteOrderWithShorterFirst) {
  EXPECT_EQ(CompareText("ab", "abc"), -1);
  EXPECT_EQ(CompareText("abd", "abc"), 1);
  EXPECT_EQ(CompareText("abc", "abc"), 0);
  EXPECT_EQ(CompareText("", ""), 0);
  EXPECT_EQ(CompareText("", "a"), -1);
  EXPECT_EQ(CompareText("B", "a"), -1);           // no case folding
  EXPECT_EQ(CompareText("\xC3\xA9", "z"), 1);     // bytes are unsigned
  EXPECT_EQ(CompareText(std::string("a\0b", 3), "a"), 1);
}

TEST(TextCompare, LikePatterns) {
  EXPECT_TRUE(MatchLike("cmd.exe", "cmd.exe"));
  EXPECT_TRUE(MatchLike("CMD.EXE", "cmd.exe"));
  EXPECT_TRUE(MatchLike("cmd.exe", "%"));
  EXPECT_TRUE(MatchLike("", "%"));
  EXPECT_TRUE(MatchLike("", "%%%"));
  EXPECT_FALSE(MatchLike("", "_"));
  EXPECT_TRUE(MatchLike("C:\\x\\cmd.exe", "%\\CMD.exe"));
  EXPECT_TRUE(MatchLike("abc", "a%%%c"));
  EXPECT_TRUE(MatchLike("abc", "_b_"));
  EXPECT_FALSE(MatchLike("abc", "_b"));
  EXPECT_FALSE(MatchLike("abcd", "abc"));   // the whole text
  EXPECT_FALSE(MatchLike("abc", "abcd"));
  EXPECT_TRUE(MatchLike("aXbXc", "%b%c"));
  EXPECT_TRUE(MatchLike("mississippi", "%iss%pi"));
  EXPECT_FALSE(MatchLike("mississippi", "%iss%pix"));
  EXPECT_TRUE(MatchLike("a%b", "a\\%b") == false);  // no escape character
  EXPECT_TRUE(MatchLike("a\\xb", "a\\%b"));
  EXPECT_TRUE(MatchLike("\xC3\xA9t\xC3\xA9", "_t_"));  // "_" is one UTF-8 character
  EXPECT_FALSE(MatchLike("\xC3\xA9t\xC3\xA9", "__t__"));
  EXPECT_TRUE(MatchLike("\xC3\x89T\xC3\xA9", "%t\xC3\xA9"));  // only ASCII folds
  EXPECT_FALSE(MatchLike("\xC3\x89", "\xC3\xA9"));
  // Long runs stay quick: no exponential backtracking.
  EXPECT_FALSE(MatchLike(std::string(5000, 'a'), std::string(50, '%') + "a%b"));
}

TEST(MatchText, EachOperator) {
  auto r = TestRecord("edr_process_create").Text("command_line", "abc").Build();
  struct Case {
    int op;
    const char* expr;
    bool match;
  } cases[] = {
      {2, "abc", true},  {2, "ab", false},  {2, "ABC", false}, {2, "abcd", false},
      {4, "ab", true},   {4, "abc", false}, {4, "abd", false},
      {8, "abc", true},  {8, "abd", true},  {8, "ab", false},
      {16, "abd", true}, {16, "abc", false}, {16, "abcd", true}, {16, "ab", false},
      {32, "abc", true}, {32, "ab", true},  {32, "abd", false},
      {64, "A_C", true}, {65, "%B%", true}, {65, "ab", false}, {64, "x%", false},
      {1, "zzz", true},  {66, "zzz", true}, {67, "zzz", true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Match1(r, "command_line", "text", c.op, c.expr), c.match) << c.op << " " << c.expr;
  }
}

TEST(MatchText, CaseSensitiveEqualsAndCaseBlindLike) {
  auto r = ProcessRecord();
  std::string upper = "C:\\\\WINDOWS\\\\SYSTEM32\\\\CMD.EXE";  // JSON-escaped
  std::string exact = "C:\\\\Windows\\\\System32\\\\cmd.exe";
  EXPECT_TRUE(Match1(r, "path", "text", 2, exact));
  EXPECT_FALSE(Match1(r, "path", "text", 2, upper));
  EXPECT_TRUE(Match1(r, "path", "text", 65, upper));
  EXPECT_TRUE(Match1(r, "path", "text", 65, "%\\\\cmd.exe"));
}

TEST(MatchText, AffinityOfATextColumn) {
  auto r = ProcessRecord();
  tarn::test::LogCapture log;
  // Unknown affinity: logged, and the constraint does not filter.
  EXPECT_TRUE(Match1(r, "command_line", "TEXT", 2, "no such text"));
  EXPECT_GE(log.CountFrom(Keel::Log::StorageQuery, Keel::Log::Debug), 1u);
  // Any known affinity compares the value as text.
  EXPECT_TRUE(Match1(r, "command_line", "blob", 2, "abc"));
  EXPECT_FALSE(Match1(r, "command_line", "blob", 2, "abd"));
}

TEST(MatchNumber, EachOperatorAndAffinity) {
  auto r = ProcessRecord();  // pid 42, puid 2^63 + 1
  struct Case {
    const char* column;
    const char* affinity;
    int op;
    const char* expr;
    bool match;
  } cases[] = {
      {"pid", "bigint", 2, "42", true},
      {"pid", "bigint", 2, "41", false},
      {"pid", "bigint", 4, "41", true},
      {"pid", "bigint", 4, "42", false},
      {"pid", "bigint", 8, "42", true},
      {"pid", "bigint", 8, "41", false},
      {"pid", "bigint", 16, "43", true},
      {"pid", "bigint", 16, "42", false},
      {"pid", "bigint", 32, "42", true},
      {"pid", "bigint", 32, "43", false},
      {"pid", "integer", 4, "-1", true},  // unsigned fields are above every negative
      {"pid", "integer", 2, "-1", false},
      {"pid", "bigint", 16, "-9223372036854775808", false},
      {"pid", "unsigned bigint", 2, "42", true},
      {"pid", "double", 4, "41.5", true},
      {"pid", "double", 16, "42.25", true},
      {"pid", "double", 2, "42.0", true},
      {"puid", "unsigned bigint", 2, "9223372036854775809", true},
      {"puid", "bigint", 4, "9223372036854775807", true},
      {"puid", "unsigned bigint", 16, "9223372036854775809", false},
      // Operators that do not apply to numbers never filter.
      {"pid", "bigint", 1, "0", true},
      {"pid", "bigint", 64, "0", true},
      {"pid", "bigint", 65, "0", true},
      {"pid", "bigint", 66, "0", true},
      {"pid", "bigint", 67, "0", true},
      // A text constraint on a number column is not a numeric filter.
      {"pid", "text", 2, "41", true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Match1(r, c.column, c.affinity, c.op, c.expr), c.match)
        << c.column << " " << c.affinity << " " << c.op << " " << c.expr;
  }
}

TEST(MatchAddress, RenderedAndComparedAsText) {
  auto r = EmailRecord();
  EXPECT_TRUE(Match1(r, "local_ip", "text", 2, "10.0.0.1"));
  EXPECT_FALSE(Match1(r, "local_ip", "text", 2, "10.0.0.10"));
  EXPECT_TRUE(Match1(r, "local_ip", "text", 65, "10.0.%"));
  EXPECT_TRUE(Match1(r, "local_ip", "text", 16, "10.0.0.2"));
  EXPECT_TRUE(Match1(r, "remote_ip", "text", 2, "2001:db8::1"));
  EXPECT_TRUE(Match1(r, "remote_ip", "text", 65, "2001:DB8::%"));
  EXPECT_FALSE(Match1(r, "remote_ip", "text", 2, "2001:DB8::1"));
  // Not stored: the empty text.
  auto empty = TestRecord("edr_email_sent").Build();
  EXPECT_TRUE(Match1(empty, "local_ip", "text", 2, ""));
  EXPECT_FALSE(Match1(empty, "local_ip", "text", 65, "_%"));

  tarn::test::LogCapture log;
  EXPECT_TRUE(Match1(r, "local_ip", "bigint", 2, "1"));  // logged, passes
  EXPECT_TRUE(Match1(r, "local_ip", "blob", 2, "x"));
  EXPECT_EQ(log.CountFrom(Keel::Log::StorageQuery, Keel::Log::Debug), 2u);
}

TEST(MatchLists, ComparedInTheirRowForm) {
  auto r = EmailRecord();
  EXPECT_TRUE(Match1(r, "gateway_macs", "text", 2, "aa,\\\"b,b\\\",cc"));
  EXPECT_TRUE(Match1(r, "gateway_macs", "text", 65, "%\\\"B,B\\\"%"));
  EXPECT_FALSE(Match1(r, "gateway_macs", "text", 2, "aa,b,b,cc"));
  auto p = ProcessRecord();
  EXPECT_TRUE(Match1(p, "command_line_indexes", "text", 2, "3,17"));
  EXPECT_FALSE(Match1(p, "command_line_indexes", "text", 2, "3"));
}

TEST(MatchEvent, ColumnsThatDoNotFilter) {
  auto r = ProcessRecord();
  EXPECT_TRUE(Match(r, "{}"));
  EXPECT_TRUE(Match(r, ""));
  // date_time narrows the scan before matching, so it is passed over here.
  EXPECT_TRUE(Match1(r, "date_time", "bigint", 2, "1"));
  // A column the table does not have is ignored.
  EXPECT_TRUE(Match1(r, "local_ip", "text", 2, "1.2.3.4"));
  EXPECT_TRUE(Match1(r, "Path", "text", 2, "x"));
}

TEST(MatchEvent, AllConstraintsMustHold) {
  auto r = ProcessRecord();
  const std::string both = R"({
      "pid": {"affinity": "bigint", "list": [{"op": 32, "expr": "40"}, {"op": 16, "expr": "%s"}]},
      "path": {"affinity": "text", "list": [{"op": 65, "expr": "%%cmd%%"}]}})";
  char text[512];
  std::snprintf(text, sizeof text, both.c_str(), "43");
  EXPECT_TRUE(Match(r, text));
  std::snprintf(text, sizeof text, both.c_str(), "42");
  EXPECT_FALSE(Match(r, text));
}

TEST(MatchEvent, EventsWithoutATable) {
  tarn::test::LogCapture log;
  ConstraintsList none;
  for (uint32_t type : {0u, 1u, 3u, 186u, 221u, 408u, 1023u}) {
    auto r = ProcessRecord();
    Events::Record::StoreUInt32(r.data(), type);
    EXPECT_FALSE(MatchEvent(Events::Objects::Base(r.data(), r.size()), none)) << type;
  }
  EXPECT_EQ(log.CountFrom(Keel::Log::StorageQuery, Keel::Log::Warning), 7u);
  EXPECT_FALSE(MatchEvent(Events::Objects::Base(nullptr, 0), none));
}

TEST(MatchEvent, CorruptRecordsReadAsEmptyFields) {
  auto r = ProcessRecord();
  const TableInfo* table = FindTable(107);
  ASSERT_NE(table, nullptr);
  uint16_t path_slot = 0;
  for (const ColumnInfo& c : table->Columns()) {
    if (std::string(c.name) == "path") path_slot = c.slot;
  }
  // The path offset points past the record's end.
  Events::Record::StoreUInt16(r.data() + path_slot, static_cast<uint16_t>(r.size() + 10));
  EXPECT_TRUE(Match1(r, "path", "text", 2, ""));
  // The record claims to be shorter than its fixed part: every slot is empty.
  auto cut = ProcessRecord();
  Events::Record::StoreUInt16(cut.data() + Events::Record::kSizeOffset, 30);
  EXPECT_TRUE(Match1(cut, "pid", "bigint", 2, "0"));
  EXPECT_TRUE(Match1(cut, "path", "text", 2, ""));
  // A size field beyond the bytes there are makes the whole record empty.
  auto longer = ProcessRecord();
  Events::Record::StoreUInt16(longer.data() + Events::Record::kSizeOffset, 0xFFFF);
  EXPECT_TRUE(Match1(longer, "pid", "bigint", 2, "0"));
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
