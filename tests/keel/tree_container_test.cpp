// Documents as the store builds and reads them. Constraint documents, read
// in document order, are held against a model of the query service in
// osquery/store_model_test.cpp.

#include <gtest/gtest.h>

#include <string>

#include "Keel/Utils/TreeContainer.h"
#include "support/log_capture.h"

namespace {

using Keel::Utils::TreeContainer;
using Node = TreeContainer::Node;

TEST(TreeContainerTest, ParseErrorsAnswerFalseAndKeepTheDocument) {
  tarn::test::LogCapture log;
  TreeContainer doc;
  ASSERT_TRUE(doc.Parse(R"({"kept":true})"));
  const char* bad[] = {"",     "{",           R"({"a":})", "[1,2",       "nul",
                       "{} x", R"({"a":1,})", "'a'",       R"({"a":01})"};
  for (const char* text : bad) EXPECT_FALSE(doc.Parse(text)) << text;
  EXPECT_EQ(log.CountFrom(Keel::Log::Utils, Keel::Log::Warning), std::size(bad));
  EXPECT_EQ(doc.Dump(), R"({"kept":true})");
  // Deep nesting is not an error in itself.
  std::string deep = std::string(5000, '[') + std::string(5000, ']');
  EXPECT_TRUE(doc.Parse(deep));
}

// Each getter takes exactly the values its type can hold, and a refusal
// leaves the output as it was.
TEST(TreeContainerTest, GettersRefuseMismatchedTypes) {
  TreeContainer doc;
  ASSERT_TRUE(doc.Parse(R"({"s":"7","neg":-1,"big":18446744073709551615,"f":1.5,"b":true,
      "n":null,"i":9223372036854775807})"));
  Node r = doc.Root();
  uint64_t u = 42;
  int64_t i = 42;
  double d = 42;
  bool b = false;
  std::string s = "untouched";
  for (const char* name : {"s", "neg", "f", "b"}) EXPECT_FALSE(r.Child(name).GetUInt64(u)) << name;
  for (const char* name : {"big", "f"}) EXPECT_FALSE(r.Child(name).GetInt64(i)) << name;
  EXPECT_FALSE(r.Child("s").GetDouble(d));
  EXPECT_FALSE(r.Child("n").GetBool(b));
  EXPECT_FALSE(r.Child("big").GetString(s) || r.GetString(s));
  EXPECT_FALSE(r.Child("missing").Child("x").GetUInt64(u));
  EXPECT_TRUE(u == 42 && i == 42 && d == 42.0 && s == "untouched");

  ASSERT_TRUE(r.Child("big").GetUInt64(u));
  EXPECT_EQ(u, UINT64_MAX);
  ASSERT_TRUE(r.Child("i").GetInt64(i));
  EXPECT_EQ(i, INT64_MAX);
  ASSERT_TRUE(r.Child("neg").GetInt64(i));
  EXPECT_EQ(i, -1);
  ASSERT_TRUE(r.Child("neg").GetDouble(d));
  EXPECT_EQ(d, -1.0);
  ASSERT_TRUE(r.Child("b").GetBool(b));
  EXPECT_TRUE(b);

  EXPECT_TRUE(r.Child("big").IsUnsigned() && r.Child("neg").IsInteger());
  EXPECT_FALSE(r.Child("neg").IsUnsigned() || r.Child("f").IsInteger());
  EXPECT_TRUE(r.Child("f").IsNumber() && r.Child("n").IsNull() && r.Has("n"));
  EXPECT_FALSE(r.Child("missing").IsNull() || r.Has("missing"));  // absent is not null
}

// Members keep insertion order, a second Set replaces in place, and
// appending to a fresh child makes it a list, as the index dump needs.
TEST(TreeContainerTest, BuildsReportsInInsertionOrder) {
  TreeContainer doc;
  Node root = doc.Root();
  EXPECT_TRUE(root.Set("zeta", 1));
  EXPECT_TRUE(root.Set("alpha", -2));
  Node b = root.InsertChild("b");
  EXPECT_TRUE(b.Set("c", "x"));
  EXPECT_TRUE(b.Set("on", true));
  EXPECT_TRUE(root.Set("ratio", 0.25));
  EXPECT_TRUE(root.Set("zeta", uint64_t{18446744073709551615ull}));
  EXPECT_EQ(doc.Dump(),
            R"({"zeta":18446744073709551615,"alpha":-2,"b":{"c":"x","on":true},"ratio":0.25})");
  EXPECT_EQ(doc.Dump(2),
            "{\n  \"zeta\": 18446744073709551615,\n  \"alpha\": -2,\n  \"b\": {\n"
            "    \"c\": \"x\",\n    \"on\": true\n  },\n  \"ratio\": 0.25\n}");
  TreeContainer again;
  ASSERT_TRUE(again.Parse(doc.Dump(2)));
  EXPECT_EQ(again.Dump(), doc.Dump());

  TreeContainer index;
  Node blocks = index.Root().InsertChild("7").InsertChild("blocks");
  for (uint64_t offset : {4ull, 1000ull}) {
    blocks.AppendChild().InsertChild("values").Set("block_offset", offset);
  }
  EXPECT_EQ(index.Dump(), R"({"7":{"blocks":[{"values":{"block_offset":4}},)"
                          R"({"values":{"block_offset":1000}}]}})");
}

TEST(TreeContainerTest, StructuralMisuseFailsWithoutThrowing) {
  tarn::test::LogCapture log;
  TreeContainer doc;
  Node root = doc.Root();
  ASSERT_TRUE(root.SetArray());
  EXPECT_FALSE(root.InsertChild("k").IsValid());  // arrays have no members
  EXPECT_FALSE(root.Set("k", 1));
  Node item = root.AppendChild();
  ASSERT_TRUE(item.SetString("s"));
  EXPECT_FALSE(item.AppendChild().IsValid());  // a string has no elements
  Node nowhere;
  EXPECT_FALSE(nowhere.SetUInt64(1));
  EXPECT_FALSE(nowhere.AppendChild().IsValid());
  EXPECT_EQ(nowhere.Dump(), "");
  EXPECT_EQ(log.CountFrom(Keel::Log::Utils, Keel::Log::Error), 5u);
  EXPECT_EQ(doc.Dump(), R"(["s"])");

  // Setters retype whatever was there.
  ASSERT_TRUE(item.SetObject());
  EXPECT_TRUE(item.Set("now", "an object"));
  ASSERT_TRUE(root.At(0).SetNull());
  EXPECT_EQ(doc.Dump(), "[null]");
  doc.Clear();
  EXPECT_EQ(doc.Dump(), "null");
}

TEST(TreeContainerTest, DumpSurvivesBytesThatAreNotUtf8) {
  TreeContainer doc;
  ASSERT_TRUE(doc.Root().Set("path", std::string_view("a\xFF"
                                                      "b")));
  EXPECT_EQ(doc.Dump(),
            "{\"path\":\"a\xEF\xBF\xBD"
            "b\"}");
}

TEST(TreeContainerTest, MovedDocumentKeepsItsContent) {
  TreeContainer doc;
  ASSERT_TRUE(doc.Parse(R"({"a":[1,2]})"));
  TreeContainer moved(std::move(doc));
  EXPECT_EQ(moved.Dump(), R"({"a":[1,2]})");
  EXPECT_EQ(moved.Root().Child("a").Size(), 2u);
  // The moved-from document can be filled again.
  EXPECT_TRUE(doc.Parse("[]"));  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(doc.Root().IsArray());
}

}  // namespace
