// The answer around the rows: its header and how each failure finishes it,
// the continuation token, the local bus, and queries read from records.
// Complete and partial answers, their tokens, and the empty ranges answered
// as complete are held against a model in store_model_test.cpp.

#include <gtest/gtest.h>

#include <cstring>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/QueryRecord.h"
#include "osquery/ContinuationToken.h"
#include "osquery/MsgBusMock.h"
#include "osquery/Query.h"
#include "osquery/ResponseBuilder.h"
#include "support/query_answer.h"

namespace Tarn::Storage::OSQuery {
namespace {

using tarn::test::Answer;
using tarn::test::ParseAnswer;

// A builder whose buffer already holds two rows, "ab" and "cde".
class FinishTest : public ::testing::Test {
 protected:
  FinishTest() : response_(msg_) {
    OSQuerySettings settings;
    settings.size_limit = 64;
    settings.row_limit = 10;
    EXPECT_TRUE(response_.Start(settings));
    AppendRow("ab");
    AppendRow("cde");
  }

  void AppendRow(const char* bytes) {
    response_.last_row = static_cast<uint32_t>(response_.buffer.Size());
    response_.buffer.PushUInt32(static_cast<uint32_t>(std::strlen(bytes)));
    response_.buffer.Push(bytes, std::strlen(bytes));
    ++response_.rows;
  }

  Answer Finish(uint8_t status) {
    response_.status = status;
    EXPECT_TRUE(response_.Finish());
    auto events = msg_.GetField("events");
    EXPECT_TRUE(events.has_value());
    return events ? ParseAnswer(*events) : Answer{};
  }

  hx::MessageBus::Msg msg_;
  ResponseBuilder response_;
};

TEST_F(FinishTest, StartGivesAFixedBufferWithTheHeaderOfAnEmptyAnswer) {
  hx::MessageBus::Msg msg;
  ResponseBuilder fresh(msg);
  OSQuerySettings settings;
  settings.size_limit = 20;
  settings.row_limit = 3;
  ASSERT_TRUE(fresh.Start(settings));
  EXPECT_EQ(fresh.max_rows, 3u);
  EXPECT_EQ(fresh.status, kStatusInternal);
  EXPECT_EQ(fresh.token, ResponseBuilder::kNoToken);
  Answer header = ParseAnswer({reinterpret_cast<const char*>(fresh.buffer.Data()),
                               fresh.buffer.Size()});
  EXPECT_EQ(header.format, 1u);
  EXPECT_EQ(header.status, 5u);
  EXPECT_EQ(header.row_count, 0u);
  EXPECT_EQ(fresh.buffer.Capacity(), 20u);
  EXPECT_FALSE(fresh.buffer.Reserve(21));  // never grows past size_limit
  settings.size_limit = 8;                  // cannot even hold the header
  EXPECT_FALSE(fresh.Start(settings));
}

TEST_F(FinishTest, FailuresDropTheRowsAndAnyToken) {
  for (uint8_t status : {1, 2, 3, 4, 5, 9}) {
    response_.token = 77;  // a failure never hands out a resume position
    Answer answer = Finish(status);
    EXPECT_TRUE(answer.well_formed);
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.row_count, 0u);
    EXPECT_EQ(response_.rows, 0u);
    EXPECT_EQ(response_.buffer.Size(), 9u);
    EXPECT_FALSE(msg_.HasField("token"));
    AppendRow("xyz");  // rows again for the next status
  }
}

// A bus that refuses one field, as one short of memory would.
class RefusingMsg : public hx::MessageBus::Msg {
 public:
  explicit RefusingMsg(std::string refused) : refused_(std::move(refused)) {}
  bool SetField(std::string_view name, const void* bytes, size_t size) override {
    return name != refused_ && Msg::SetField(name, bytes, size);
  }

 private:
  std::string refused_;
};

TEST(FinishRefusedTest, AnAnswerWhoseTokenOrPositionsAreRefusedStillSendsEvents) {
  for (const char* refused : {"token", "positions"}) {
    SCOPED_TRACE(refused);
    RefusingMsg msg(refused);
    ResponseBuilder response(msg);
    OSQuerySettings settings;
    settings.size_limit = 64;
    settings.row_limit = 10;
    ASSERT_TRUE(response.Start(settings));
    response.with_positions = true;
    ASSERT_TRUE(response.positions.Create(64));
    response.buffer.PushUInt32(2);
    response.buffer.Push("ab", 2);
    response.positions.PushUInt64(42);
    ++response.rows;
    response.status = kStatusPartial;
    response.token = 77;
    // The answer cannot be followed: a failure without rows, but an answer.
    EXPECT_FALSE(response.Finish());
    auto events = msg.GetField("events");
    ASSERT_TRUE(events.has_value());
    Answer answer = ParseAnswer(*events);
    EXPECT_EQ(answer.status, 5u);
    EXPECT_EQ(answer.row_count, 0u);
    EXPECT_FALSE(msg.HasField("token"));
  }
}

TEST(ContinuationTokenTest, RoundTripsAndRejectsWhatIsNotOne) {
  uint8_t bytes[ContinuationToken::kSize];
  ContinuationToken{7, 0x1122334455667788ull}.Encode(bytes);
  ContinuationToken read;
  ASSERT_TRUE(read.Decode(bytes, sizeof(bytes)));
  EXPECT_EQ(read.page, 7u);
  EXPECT_EQ(read.position, 0x1122334455667788ull);

  EXPECT_FALSE(read.Decode(bytes, sizeof(bytes) - 1));
  EXPECT_FALSE(read.Decode(nullptr, sizeof(bytes)));
  for (size_t at : {0u, 6u, 16u, 23u}) {  // magic, the u16 pad, the trailer
    uint8_t damaged[ContinuationToken::kSize];
    std::memcpy(damaged, bytes, sizeof(bytes));
    damaged[at] ^= 1;
    ContinuationToken untouched{1, 2};
    EXPECT_FALSE(untouched.Decode(damaged, sizeof(damaged))) << at;
    EXPECT_EQ(untouched.page, 1u);
    EXPECT_EQ(untouched.position, 2u);
  }
}

TEST(MsgBusMockTest, KeepsOwnCopiesByNameAndReplacesOnReset) {
  MsgBusMock mock;
  hx::MessageBus::Msg& bus = mock;
  std::string bytes = "first";
  ASSERT_TRUE(bus.SetField("events", bytes.data(), bytes.size()));
  bytes = "XXXXX";  // the mock holds a copy
  ASSERT_NE(mock.Find("events"), nullptr);
  EXPECT_EQ(*mock.Find("events"), "first");
  ASSERT_TRUE(bus.SetField("events", "second!", 7));
  ASSERT_TRUE(bus.SetField("token", "", 0));
  EXPECT_EQ(*mock.Find("events"), "second!");
  EXPECT_EQ(*mock.Find("token"), "");
  EXPECT_EQ(mock.Count(), 2u);
  EXPECT_EQ(mock.Find("other"), nullptr);
  EXPECT_FALSE(bus.SetField("events", nullptr, 3));
  EXPECT_EQ(*mock.Find("events"), "second!");
}

TEST(QueryTest, ReadsEveryFieldOfAQueryRecordAndOwnsItsTexts) {
  Events::QueryRecord record;
  record.local = true;
  record.page = 2;
  record.token = 0xABCDEF;
  record.table = "edr_process_create";
  record.columns = "pid,path";
  record.constraints = R"({"pid":{"affinity":"integer","list":[{"op":2,"expr":"1"}]}})";
  Query query;
  {
    Events::DynamicEventBuilder builder;
    ASSERT_TRUE(record.Write(builder, 123));
    ASSERT_TRUE(Query::FromRecord(builder.Event(), query));
  }  // the record is gone; the query still holds its texts
  EXPECT_TRUE(query.local);
  EXPECT_EQ(query.page, 2u);
  EXPECT_EQ(query.token, 0xABCDEFu);
  EXPECT_TRUE(query.HasToken());
  EXPECT_EQ(query.table, "edr_process_create");
  EXPECT_EQ(query.columns, "pid,path");
  EXPECT_EQ(query.constraints, record.constraints);

  Events::DynamicEventBuilder other;
  ASSERT_TRUE(other.Begin(17, 1, 0) && other.AddUInt32(5) && other.Finish());
  Query untouched;
  untouched.table = "kept";
  EXPECT_FALSE(Query::FromRecord(other.Event(), untouched));
  EXPECT_EQ(untouched.table, "kept");
  EXPECT_FALSE(untouched.HasToken());
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
