// The scan's limits against a real store: tokens from before the start or
// outside the store, failing rows, the row limit, the range's last second,
// foreign record versions and a buffer too small for one row. The page
// limit is in query_intake_test.cpp; random queries and their pages are
// held against a model in store_model_test.cpp.

#include <gtest/gtest.h>

#include "Tarn/Events/GenericEventHolder.h"
#include "osquery/QueryScan.h"
#include "osquery/Tables.h"
#include "osquery/ResponseBuffer.h"
#include "query_store.h"

namespace Tarn::Storage::OSQuery {
namespace {

using tarn::test::Filter;
using tarn::test::QueryLimits;
using tarn::test::Reply;
using tarn::test::RowPtr;

const char* const kTables[] = {"edr_process_create", "edr_email_sent", "edr_enter_idle_mode",
                               "edr_external_notification_on_file"};

// Three stored days with a day missing between the last two, each cut into
// several blocks, rows of four tables interleaved.
class QueryScanTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    store_ = new tarn::test::QueryStore();
    ASSERT_TRUE(store_->Open());
    tarn::test::RowMaker maker(7);
    for (uint16_t day : {9000, 9001, 9003}) {
      uint32_t second = 3600;
      for (uint32_t i = 0; i < 160; ++i) {
        second += maker.random()() % 4 == 0 ? 0 : 1 + maker.random()() % 400;
        ASSERT_TRUE(store_->FeedNew(maker, kTables[maker.random()() % 4], day, second,
                                    maker.random()() % 1000));
        if (i % 45 == 44) {
          ASSERT_TRUE(store_->Cut());
        }
      }
      ASSERT_TRUE(store_->Cut());
    }
  }
  static void TearDownTestSuite() {
    delete store_;
    store_ = nullptr;
  }

  static tarn::test::QueryStore* store_;
};

tarn::test::QueryStore* QueryScanTest::store_ = nullptr;

TEST_F(QueryScanTest, EarlierTokensAndTokensOutsideTheStoreAreRefused) {
  const std::string table = "edr_enter_idle_mode";
  EventStorageProvider& reader = store_->provider();
  const uint64_t first = reader.GetFirstIterVal();
  uint64_t second = first;
  ASSERT_TRUE(reader.Increment(second));

  Query at_start = tarn::test::MakeQuery(table);
  at_start.token = first;
  Reply reply = store_->Ask(at_start);
  EXPECT_FALSE(reply.result);
  EXPECT_EQ(reply.answer.status, 9u);
  EXPECT_EQ(reply.answer.row_count, 0u);

  // The range starts after the token: still not after the start.
  const std::vector<Filter> later = {
      {"date_time", 32, std::to_string(store_->fed()[60].second * 1000), "bigint"}};
  Query before = tarn::test::MakeQuery(table, "", later);
  before.token = second;
  EXPECT_EQ(store_->Ask(before).answer.status, 9u);

  // After the start, but no such block: the store cannot be read there.
  Query nowhere = tarn::test::MakeQuery(table);
  nowhere.token = RawIterator(9001, 200, 0);
  reply = store_->Ask(nowhere);
  EXPECT_FALSE(reply.result);
  EXPECT_EQ(reply.answer.status, 5u);
  EXPECT_EQ(reply.answer.row_count, 0u);
  // Tokens after the start resume there: followed through every page by
  // the model test.
}

TEST_F(QueryScanTest, AskedForThemEachRowComesWithItsEventsPosition) {
  EventStorageProvider& reader = store_->provider();
  for (const char* table : kTables) {
    SCOPED_TRACE(table);
    Query query = tarn::test::MakeQuery(table, "pid,date_time,@position");
    std::vector<uint64_t> positions;
    size_t rows = 0;
    for (;;) {
      Reply reply = store_->Ask(query, QueryLimits(4'000));
      ASSERT_TRUE(reply.answer.status == 0 || reply.answer.status == 8);
      ASSERT_EQ(reply.positions.size(), reply.answer.row_count);
      positions.insert(positions.end(), reply.positions.begin(), reply.positions.end());
      rows += reply.answer.row_count;
      if (!reply.has_token) break;
      query.token = reply.token.position;
      query.page = reply.token.page;
    }
    // One per row, in store order, each naming an event of the table.
    ASSERT_EQ(positions.size(), rows);
    Events::GenericEventHolder holder;
    for (size_t i = 0; i < positions.size(); ++i) {
      if (i > 0) {
        EXPECT_LT(reader.Compare(positions[i - 1], positions[i]), 0);
      }
      ASSERT_TRUE(reader.GetEvent(positions[i], &holder));
      EXPECT_EQ(holder.Event().TypeId(), TableIdByName(table));
    }
    // Not asked for, none are sent.
    EXPECT_TRUE(store_->Ask(tarn::test::MakeQuery(table, "pid")).positions.empty());
  }
}

TEST_F(QueryScanTest, AFailingRowFailsTheAnswerWithStatusThree) {
  // No stored event makes AddRow fail short of memory, so the row step is
  // replaced: the third row fails.
  static int calls;
  calls = 0;
  RowAdder failing = [](const Events::Objects::Base& event, ResponseBuilder& response,
                        const ColumnSelection& columns, const OSQuerySettings& settings,
                        Keel::Collections::Buffer& scratch) {
    return ++calls == 3 ? kRowFailed : AddRow(event, response, columns, settings, scratch);
  };
  ConstraintsList none;
  ColumnSelection all = SplitColumns("");
  ScanRequest request{TableIdByName("edr_process_create"), &all, &none,
                      store_->provider().GetFirstIterVal(), store_->provider().GetLastIterVal()};
  hx::MessageBus::Msg msg;
  ResponseBuilder response(msg);
  ASSERT_TRUE(response.Start(QueryLimits()));
  EXPECT_FALSE(ScanPositions(store_->provider(), QueryLimits(), request, response, failing));
  EXPECT_EQ(response.status, kStatusRowFailed);
  EXPECT_EQ(response.rows, 2u);
  EXPECT_TRUE(response.Finish());
  tarn::test::Answer answer = tarn::test::ParseAnswer(*msg.GetField("events"));
  EXPECT_EQ(answer.status, 3u);
  EXPECT_EQ(answer.row_count, 0u);
  EXPECT_TRUE(answer.rows.empty());
}

TEST(QueryEvictionTest, ADayEvictedUnderTheScanFailsTheAnswerInsteadOfEndingIt) {
  // Two days under a limit of two: once the scan has read the first day's
  // row, a third day evicts the first, and the scan cannot step on.
  tarn::test::QueryStore store(2);
  static tarn::test::QueryStore* writer;
  static tarn::test::RowMaker maker(4);
  writer = &store;
  ASSERT_TRUE(store.Open());
  for (uint16_t day : {9000, 9001}) {
    ASSERT_TRUE(store.FeedNew(maker, "edr_enter_idle_mode", day, 10));
    ASSERT_TRUE(store.Cut());
  }
  RowAdder evicting = [](const Events::Objects::Base& event, ResponseBuilder& response,
                         const ColumnSelection& columns, const OSQuerySettings& settings,
                         Keel::Collections::Buffer& scratch) {
    if (writer != nullptr && writer->FeedNew(maker, "edr_enter_idle_mode", 9002, 10) && writer->Cut()) writer = nullptr;
    return AddRow(event, response, columns, settings, scratch);
  };
  ConstraintsList none;
  ColumnSelection all = SplitColumns("");
  ScanRequest request{TableIdByName("edr_enter_idle_mode"), &all, &none,
                      store.provider().GetFirstIterVal(), store.provider().GetLastIterVal()};
  hx::MessageBus::Msg msg;
  ResponseBuilder response(msg);
  ASSERT_TRUE(response.Start(QueryLimits()));
  EXPECT_FALSE(ScanPositions(store.provider(), QueryLimits(), request, response, evicting));
  EXPECT_EQ(writer, nullptr);
  EXPECT_EQ(response.status, kStatusInternal);
  EXPECT_EQ(response.rows, 1u);
}

// A store small enough to count positions: five idle rows at seconds 10-14
// of day 9000, then three process rows at 15-17.
class QueryLimitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(store_.Open());
    tarn::test::RowMaker maker(3);
    for (uint32_t s = 10; s < 15; ++s) {
      ASSERT_TRUE(store_.FeedNew(maker, "edr_enter_idle_mode", 9000, s));
    }
    for (uint32_t s = 15; s < 18; ++s) {
      ASSERT_TRUE(store_.FeedNew(maker, "edr_process_create", 9000, s));
    }
    ASSERT_TRUE(store_.Cut());
  }

  Reply AskIdle(uint32_t row_limit, std::vector<Filter> filters = {}) {
    return store_.Ask(tarn::test::MakeQuery("edr_enter_idle_mode", "duration", filters),
                      QueryLimits(1'000'000, row_limit));
  }

  tarn::test::QueryStore store_;
};

TEST_F(QueryLimitTest, TheRowLimitCountsBeforeEveryPosition) {
  const std::vector<Filter> to_14 = {
      {"date_time", 16, std::to_string(tarn::test::EpochOf(9000, 15) * 1000), "bigint"}};
  // Five rows fill a limit of five; positions of other tables are left.
  Reply cut = AskIdle(5);
  EXPECT_FALSE(cut.result);
  EXPECT_EQ(cut.answer.status, 1u);
  EXPECT_EQ(cut.answer.row_count, 0u);
  // Ending the range at the fifth row leaves no position: complete.
  Reply exact = AskIdle(5, to_14);
  EXPECT_TRUE(exact.result);
  EXPECT_EQ(exact.answer.status, 0u);
  EXPECT_EQ(exact.answer.row_count, 5u);
  EXPECT_EQ(AskIdle(4, to_14).answer.status, 1u);
  Reply roomy = AskIdle(6);
  EXPECT_EQ(roomy.answer.status, 0u);
  EXPECT_EQ(roomy.answer.row_count, 5u);
  EXPECT_EQ(tarn::test::CompareRows(
                tarn::test::DecodeRows(roomy.answer.rows, "edr_enter_idle_mode"),
                tarn::test::BruteForce(store_.fed(), "edr_enter_idle_mode", "duration", {})),
            "");
}

TEST_F(QueryLimitTest, EveryEventOfTheRangesLastSecondIsAnswered) {
  // Second 30 inside one block; second 40 split over two blocks and also
  // the last second stored.
  tarn::test::RowMaker maker(9);
  auto feed = [&](uint32_t second, std::initializer_list<uint32_t> ms) {
    for (uint32_t m : ms) {
      ASSERT_TRUE(store_.FeedNew(maker, "edr_enter_idle_mode", 9000, second, m));
    }
  };
  feed(30, {0, 100, 200});
  feed(31, {0});
  feed(40, {0, 1});
  ASSERT_TRUE(store_.Cut());
  feed(40, {2, 3});
  ASSERT_TRUE(store_.Cut());
  auto count = [&](uint32_t from, uint32_t op, uint32_t to) {
    const std::vector<Filter> filters = {
        {"date_time", 32, std::to_string(tarn::test::EpochOf(9000, from) * 1000), "bigint"},
        {"date_time", op, std::to_string(tarn::test::EpochOf(9000, to) * 1000), "bigint"}};
    Reply reply = AskIdle(100, filters);
    EXPECT_EQ(reply.answer.status, 0u);
    return reply.answer.row_count;
  };
  for (uint32_t op : {8, 16}) {  // both end one second before the value
    EXPECT_EQ(count(30, op, 31), 3u) << op;
    EXPECT_EQ(count(30, op, 32), 4u) << op;
    EXPECT_EQ(count(31, op, 41), 5u) << op;
  }
  // Split over two blocks with more events after it.
  feed(41, {0});
  ASSERT_TRUE(store_.Cut());
  EXPECT_EQ(count(40, 16, 41), 4u);

  // An upper bound in a gap ends at the last event of the last second
  // stored before it: inside a day, and before a later day's first event.
  feed(45, {0, 1, 2});
  feed(60, {0, 1});
  ASSERT_TRUE(store_.Cut());
  ASSERT_TRUE(store_.FeedNew(maker, "edr_enter_idle_mode", 9001, 100, 0));
  ASSERT_TRUE(store_.Cut());
  EXPECT_EQ(count(41, 16, 50), 4u);
  const std::vector<Filter> into_next_day = {
      {"date_time", 32, std::to_string(tarn::test::EpochOf(9000, 41) * 1000), "bigint"},
      {"date_time", 16, std::to_string(tarn::test::EpochOf(9001, 50) * 1000), "bigint"}};
  Reply reply = AskIdle(100, into_next_day);
  EXPECT_EQ(reply.answer.status, 0u);
  EXPECT_EQ(reply.answer.row_count, 6u);
}

TEST_F(QueryLimitTest, RecordsOfAnotherVersionArePassedOver) {
  tarn::test::RowMaker maker(5);
  RowPtr foreign = maker.Make("edr_enter_idle_mode", tarn::test::EpochOf(9000, 20) * 1000);
  ASSERT_TRUE(store_.Feed("edr_enter_idle_mode", foreign, 9));
  ASSERT_TRUE(store_.FeedNew(maker, "edr_enter_idle_mode", 9000, 21));
  ASSERT_TRUE(store_.Cut());
  Reply reply = AskIdle(100);
  ASSERT_EQ(reply.answer.status, 0u);
  auto rows = tarn::test::DecodeRows(reply.answer.rows, "edr_enter_idle_mode");
  auto expected = tarn::test::BruteForce(store_.fed(), "edr_enter_idle_mode", "duration", {});
  expected.erase(expected.begin() + 5);  // the version-9 record
  EXPECT_EQ(tarn::test::CompareRows(rows, expected), "");
}

TEST_F(QueryLimitTest, ABufferTooSmallForOneRowIsPartialWithNoRows) {
  Reply reply = store_.Ask(tarn::test::MakeQuery("edr_enter_idle_mode"), QueryLimits(12));
  EXPECT_TRUE(reply.result);
  EXPECT_EQ(reply.answer.status, 8u);
  EXPECT_EQ(reply.answer.row_count, 0u);
  ASSERT_TRUE(reply.has_token);
  EXPECT_EQ(reply.token.position, store_.provider().GetFirstIterVal());
  EXPECT_EQ(reply.token.page, 1u);
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
