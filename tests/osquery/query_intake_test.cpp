// What happens around the scan: where the answer goes, the settings a
// query runs under, queries that cannot run, empty stores and ranges, and
// the statistics dump.

#include <gtest/gtest.h>

#include "Keel/Utils/TreeContainer.h"
#include "Tarn/Events/ExternalData.h"
#include "osquery/QueryException.h"
#include "query_store.h"

namespace Tarn::Storage::OSQuery {
namespace {

using tarn::test::Filter;
using tarn::test::QueryLimits;
using tarn::test::Reply;

class QueryIntakeTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(store_.Open()); }

  void FeedDay(uint16_t day, uint32_t count) {
    tarn::test::RowMaker maker(day);
    for (uint32_t i = 0; i < count; ++i) {
      ASSERT_TRUE(store_.FeedNew(maker, i % 2 ? "edr_process_create" : "edr_email_sent", day,
                                 100 + i * 10));
    }
    ASSERT_TRUE(store_.Cut());
  }

  Reply Handle(Query query, Events::ExternalData* data) {
    Reply reply;
    reply.result = store_.queries().HandleQuery(std::move(query), data);
    if (data != nullptr && data->Message() != nullptr) {
      tarn::test::QueryStore::Read(*data->Message(), reply);
    }
    return reply;
  }

  std::string TimeMs(uint16_t day, uint32_t second) {
    return std::to_string(tarn::test::EpochOf(day, second) * 1000);
  }

  tarn::test::QueryStore store_;
};

TEST_F(QueryIntakeTest, QueriesThatCannotRunThrowAndAreAnsweredWithStatusFive) {
  FeedDay(9000, 10);
  hx::MessageBus::Msg msg;
  const OSQuerySettings limits = QueryLimits();
  try {
    store_.queries().HandleOSQuery(tarn::test::MakeQuery("edr_no_such_table"), msg, limits);
    ADD_FAILURE() << "no exception";
  } catch (const QueryException& e) {
    EXPECT_STREQ(e.what(), "unknown table requested");
  }
  Query bad_json = tarn::test::MakeQuery("edr_process_create");
  bad_json.constraints = R"({"pid":{"affinity":"integer","list":[{"op":3,"expr":"1"}]}})";
  try {
    store_.queries().HandleOSQuery(std::move(bad_json), msg, limits);
    ADD_FAILURE() << "no exception";
  } catch (const QueryException& e) {
    EXPECT_STREQ(e.what(), "failed to parse constraints");
  }
  // Through the intake the exception stops: status 5, no rows, false
  // (module/module_query_status_test.cpp).
}

TEST_F(QueryIntakeTest, TheAnswerGoesToTheRequesterOrTheLocalBus) {
  FeedDay(9000, 10);
  hx::MessageBus::Msg requester;
  Events::ExternalData data(&requester);
  Reply reply = Handle(tarn::test::MakeQuery("edr_process_create", "pid"), &data);
  EXPECT_TRUE(reply.result);
  EXPECT_EQ(reply.answer.status, 0u);
  EXPECT_EQ(reply.answer.row_count, 5u);

  // Nowhere to answer: refused.
  EXPECT_FALSE(Handle(tarn::test::MakeQuery("edr_process_create"), nullptr).result);
  Events::ExternalData empty;
  EXPECT_FALSE(Handle(tarn::test::MakeQuery("edr_process_create"), &empty).result);

  // A local query is answered on the module's own bus, not the requester's.
  hx::MessageBus::Msg untouched;
  Events::ExternalData other(&untouched);
  Query local = tarn::test::MakeQuery("edr_process_create");
  local.local = true;
  EXPECT_TRUE(Handle(std::move(local), &other).result);
  Query local_without_data = tarn::test::MakeQuery("edr_process_create");
  local_without_data.local = true;
  EXPECT_TRUE(Handle(std::move(local_without_data), nullptr).result);
  EXPECT_EQ(untouched.FieldCount(), 0u);

  // Another module answers edr_netdb: nothing is sent.
  hx::MessageBus::Msg netdb;
  EXPECT_FALSE(store_.queries().HandleOSQuery(tarn::test::MakeQuery("edr_netdb"), netdb,
                                              QueryLimits()));
  EXPECT_EQ(netdb.FieldCount(), 0u);
}

TEST_F(QueryIntakeTest, EachQueryRunsUnderTheSettingsInForce) {
  FeedDay(9000, 10);
  hx::MessageBus::Msg requester;
  Events::ExternalData data(&requester);
  Query third_page = tarn::test::MakeQuery("edr_process_create");
  third_page.page = 3;  // aux_limit 4 by default: page + 1 is not below it
  third_page.token = RawIterator(9000, 0, 1);
  Reply reply = Handle(Query(third_page), &data);
  EXPECT_FALSE(reply.result);
  EXPECT_EQ(reply.answer.status, 2u);

  Settings settings = store_.manager().GetSettings();
  settings.osquery.aux_limit = 5;
  ASSERT_TRUE(store_.manager().UpdateSettings(settings));
  reply = Handle(std::move(third_page), &data);
  EXPECT_TRUE(reply.result);
  EXPECT_EQ(reply.answer.status, 0u);
  EXPECT_EQ(reply.answer.row_count, 5u);  // resumed at the first process row
}

TEST_F(QueryIntakeTest, EmptyStoresAndRangesOutsideTheStore) {
  // Empty: without a time constraint the range is the widest one.
  Reply widest = store_.Ask(tarn::test::MakeQuery("edr_process_create"));
  EXPECT_FALSE(widest.result);
  EXPECT_TRUE(widest.answer.well_formed);
  EXPECT_EQ(widest.answer.status, 0u);
  EXPECT_EQ(widest.answer.row_count, 0u);
  // With one, there is no position for its bounds.
  Reply narrowed = store_.Ask(tarn::test::MakeQuery(
      "edr_process_create", "", {{"date_time", 32, TimeMs(9000, 0), "bigint"}}));
  EXPECT_FALSE(narrowed.result);
  EXPECT_EQ(narrowed.answer.status, 5u);

  FeedDay(9000, 10);
  FeedDay(9002, 10);
  for (const std::vector<Filter>& outside : std::vector<std::vector<Filter>>{
           {{"date_time", 16, TimeMs(9000, 100), "bigint"}},   // before the first event
           {{"date_time", 4, TimeMs(9002, 190), "bigint"}},    // after the last
           {{"date_time", 4, "-1", "bigint"}},                 // wraps past everything
       }) {
    Reply reply = store_.Ask(tarn::test::MakeQuery("edr_process_create", "", outside));
    EXPECT_FALSE(reply.result);
    EXPECT_EQ(reply.answer.status, 0u);
    EXPECT_EQ(reply.answer.row_count, 0u);
  }
  // A range inside the day without events: complete and empty.
  Reply gap = store_.Ask(tarn::test::MakeQuery("edr_process_create", "",
                                               {{"date_time", 4, TimeMs(9001, 0), "bigint"},
                                                {"date_time", 16, TimeMs(9001, 500), "bigint"}}));
  EXPECT_TRUE(gap.result);
  EXPECT_EQ(gap.answer.status, 0u);
  EXPECT_EQ(gap.answer.row_count, 0u);
  // Contradictions are refused before the store is asked.
  Reply contradiction = store_.Ask(tarn::test::MakeQuery(
      "edr_process_create", "",
      {{"date_time", 2, TimeMs(9000, 110), "bigint"},
       {"date_time", 2, TimeMs(9000, 120), "bigint"}}));
  EXPECT_FALSE(contradiction.result);
  EXPECT_EQ(contradiction.answer.status, 4u);
}

TEST_F(QueryIntakeTest, ProtoStatsCountEveryTableOnceInstalled) {
  FeedDay(9000, 9);
  const std::string path = store_.directory() + "/stats.json";
  EXPECT_FALSE(store_.provider().__dump_proto_stats(path.c_str()));  // nothing installed
  store_.provider().SetTableStatistics(&store_.queries());
  ASSERT_TRUE(store_.provider().__dump_proto_stats(path.c_str()));
  ASSERT_TRUE(store_.provider().__dump_proto_stats(nullptr));  // into the storage directory

  Keel::Utils::TreeContainer doc;
  ASSERT_TRUE(doc.Parse(tarn::test::ReadWholeFile(path)));
  uint64_t events = 0;
  ASSERT_TRUE(doc.Root().Child("events").GetUInt64(events));
  EXPECT_EQ(events, 9u);
  for (const char* table : {"edr_process_create", "edr_email_sent"}) {
    uint64_t count = 0, row_bytes = 0, expected_bytes = 0, expected_count = 0;
    for (const auto& fed : store_.fed()) {
      if (fed.table != table) continue;
      ++expected_count;
      expected_bytes += fed.row->ByteSizeLong();
    }
    auto node = doc.Root().Child("tables").Child(EventTypeName(TableIdByName(table)));
    std::string name;
    ASSERT_TRUE(node.Child("table").GetString(name)) << table;
    EXPECT_EQ(name, table);
    ASSERT_TRUE(node.Child("count").GetUInt64(count));
    ASSERT_TRUE(node.Child("row_bytes").GetUInt64(row_bytes));
    EXPECT_EQ(count, expected_count);
    EXPECT_EQ(row_bytes, expected_bytes);
  }
  EXPECT_EQ(doc.Root().Child("tables").Size(), 2u);
  EXPECT_FALSE(tarn::test::ReadWholeFile(store_.directory() + "/proto_stats.json").empty());
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
