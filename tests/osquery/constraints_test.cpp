// What a constraints text may hold. That the constraints parsed from good
// texts select the right rows, for every affinity and operator, is held
// against a model in store_model_test.cpp.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "osquery/ConstraintsList.h"
#include "osquery/NameHash.h"
#include "support/log_capture.h"

namespace Tarn::Storage::OSQuery {
namespace {

std::string One(const std::string& column, const std::string& affinity, const std::string& op,
                const std::string& expr) {
  return "{\"" + column + "\":{\"affinity\":\"" + affinity + "\",\"list\":[{\"op\":" + op +
         ",\"expr\":\"" + expr + "\"}]}}";
}

TEST(ConstraintsParse, AffinityNamesAreExactLowerCase) {
  struct Case {
    const char* name;
    uint8_t code;
  } cases[] = {{"text", 1},   {"integer", 2}, {"bigint", 3},   {"unsigned bigint", 4},
               {"double", 5}, {"blob", 6},    {"TEXT", 0},     {"Integer", 0},
               {"", 0},       {"unsigned  bigint", 0},         {"texts", 0}};
  for (const Case& c : cases) {
    EXPECT_EQ(AffinityFromName(c.name), c.code) << c.name;
    ConstraintsList list;
    // Unknown affinities keep their value unparsed, so any text is accepted.
    ASSERT_TRUE(list.Parse(One("path", c.name, "2", c.code == 0 ? "not a number" : "7")))
        << c.name;
    EXPECT_EQ(list.Items()[0].affinity, c.code) << c.name;
  }
}

TEST(ConstraintsParse, OnlyTheTenOperatorCodes) {
  for (int op : {1, 2, 4, 8, 16, 32, 64, 65, 66, 67}) {
    ConstraintsList list;
    EXPECT_TRUE(list.Parse(One("path", "text", std::to_string(op), "a"))) << op;
    EXPECT_TRUE(IsOperatorCode(op));
  }
  tarn::test::LogCapture log;
  for (const char* op : {"0", "3", "68", "256", "257", "-1", "2.5", "\"2\"", "null",
                         "18446744073709551615"}) {
    ConstraintsList list;
    EXPECT_FALSE(list.Parse(One("path", "text", op, "a"))) << op;
  }
  EXPECT_FALSE(IsOperatorCode(2 + 256));  // not truncated to 8 bits
  ConstraintsList list;
  EXPECT_FALSE(list.Parse(R"({"path":{"affinity":"text","list":[{"expr":"a"}]}})"));
  EXPECT_GE(log.CountFrom(Keel::Log::StorageQuery, Keel::Log::Warning), 11u);
}

TEST(ConstraintsParse, ValuesMustParseForTheirAffinity) {
  struct Case {
    const char* affinity;
    const char* expr;
    bool ok;
  } cases[] = {
      {"integer", "2147483647", true},   {"integer", "2147483648", false},
      {"integer", "-2147483649", false}, {"integer", "12abc", false},
      {"integer", "0x10", false},        {"integer", " 5", false},
      {"integer", "5 ", false},          {"integer", "", false},
      {"integer", "+5", false},          {"bigint", "-9223372036854775808", true},
      {"bigint", "9223372036854775808", false},
      {"unsigned bigint", "-1", false},  {"unsigned bigint", "18446744073709551616", false},
      {"double", "-0.25", true},         {"double", "1e400", false},
      {"double", "nan", false},          {"double", "inf", false},
      {"double", "1.5x", false},         {"text", "anything at all", true},
      {"blob", "", true},
  };
  for (const Case& c : cases) {
    ConstraintsList list;
    EXPECT_EQ(list.Parse(One("pid", c.affinity, "2", c.expr)), c.ok)
        << c.affinity << " " << c.expr;
  }
}

TEST(ConstraintsParse, MalformedTextFailsAsAWhole) {
  const char* texts[] = {
      "not json",
      "{\"path\":",
      "[]",
      "\"text\"",
      "null",
      R"({"path": 5})",
      R"({"path": {"list": [{"op": 2, "expr": "a"}]}})",
      R"({"path": {"affinity": 1, "list": []}})",
      R"({"path": {"affinity": "text"}})",
      R"({"path": {"affinity": "text", "list": {"op": 2, "expr": "a"}}})",
      R"({"path": {"affinity": "text", "list": [5]}})",
      R"({"path": {"affinity": "text", "list": [{"op": 2}]}})",
      R"({"path": {"affinity": "text", "list": [{"op": 2, "expr": 5}]}})",
      // A good column does not save a bad one.
      R"({"pid": {"affinity": "bigint", "list": [{"op": 2, "expr": "1"}]},
          "path": {"affinity": "text", "list": [{"op": 3, "expr": "a"}]}})",
  };
  for (const char* text : texts) {
    ConstraintsList list;
    ASSERT_TRUE(list.Parse(One("pid", "bigint", "2", "1")));
    EXPECT_FALSE(list.Parse(text)) << text;
    EXPECT_TRUE(list.Empty()) << text;  // nothing of the old or half-parsed list stays
  }
}

TEST(ConstraintsParse, NoFilterAtAll) {
  for (const char* text : {"", "  \n", "{}", R"({"path": {"affinity": "text", "list": []}})"}) {
    ConstraintsList list;
    EXPECT_TRUE(list.Parse(text)) << '"' << text << '"';
    EXPECT_TRUE(list.Empty());
    EXPECT_TRUE(list.begin() == list.end());
  }
}

TEST(ConstraintsList, IteratesAllOrOneField) {
  ConstraintsList list;
  ASSERT_TRUE(list.Parse(R"({
      "a": {"affinity": "text", "list": [{"op": 2, "expr": "1"}]},
      "b": {"affinity": "text", "list": [{"op": 2, "expr": "2"}, {"op": 4, "expr": "3"}]},
      "c": {"affinity": "text", "list": [{"op": 2, "expr": "4"}]},
      "b ": {"affinity": "text", "list": [{"op": 2, "expr": "5"}]}})"));
  std::string all;
  for (const Constraint& c : list) all += c.expr;
  EXPECT_EQ(all, "12345");

  std::string b;
  for (const Constraint& c : list.ForField(NameHash("b"))) b += c.expr;
  EXPECT_EQ(b, "23");

  auto it = list.ForField(NameHash("c"));
  ASSERT_FALSE(it == it.end());
  EXPECT_EQ(it->expr, "4");
  ++it;
  EXPECT_TRUE(it == it.end());

  auto none = list.ForField(NameHash("z"));
  EXPECT_TRUE(none == none.end());
}

TEST(ConstraintsList, AColumnNamedTwiceKeepsBothItsLists) {
  // Every constraint holds, joined by AND: "pid > 1000" and "pid < 2000"
  // given as two members, each with its own affinity.
  ConstraintsList list;
  ASSERT_TRUE(list.Parse(R"({
      "pid": {"affinity": "integer", "list": [{"op": 4, "expr": "1000"}]},
      "path": {"affinity": "text", "list": [{"op": 2, "expr": "/bin/sh"}]},
      "pid": {"affinity": "bigint", "list": [{"op": 16, "expr": "2000"}]}})"));
  std::vector<std::pair<uint8_t, uint8_t>> pid;
  for (const Constraint& c : list.ForField(NameHash("pid"))) pid.push_back({c.op, c.affinity});
  EXPECT_EQ(pid, (std::vector<std::pair<uint8_t, uint8_t>>{{kGreater, kIntegerAffinity},
                                                           {kLess, kBigIntAffinity}}));
  EXPECT_EQ(list.Size(), 3u);
  // A value that does not parse in either still fails the whole text.
  EXPECT_FALSE(list.Parse(R"({"pid": {"affinity": "integer", "list": []},
                              "pid": {"affinity": "integer", "list": [{"op": 2, "expr": "x"}]}})"));
}

TEST(ConstraintsList, NamesSurviveMovesAndBuiltConstraintsHaveNone) {
  ConstraintsList moved;
  {
    ConstraintsList list;
    ASSERT_TRUE(list.Parse(One("a_column_name_longer_than_small_strings", "text", "2", "v")));
    moved = std::move(list);
  }
  ConstraintsList again(std::move(moved));
  EXPECT_EQ(again.Items()[0].column_name, "a_column_name_longer_than_small_strings");

  Constraint built(NameHash("pid"), kEquals, "12", kBigIntAffinity);
  EXPECT_EQ(built.column_name, "<CONSTRAINT>");
  ASSERT_TRUE(built.ParseValue());
  again.Add(std::move(built));
  EXPECT_EQ(again.Size(), 2u);
  EXPECT_EQ(again.Items()[1].number.i64, 12);
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
