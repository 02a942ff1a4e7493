// Every answer status provoked through the loaded module, and both query
// types served while intake is disabled. Paging by token, and the answers
// themselves, are held against a model in osquery/store_model_test.cpp.

#include <sys/wait.h>
#include <unistd.h>

#include "Tarn/Events/StorageQuery.h"
#include "query_host.h"
#include "support/row_columns.h"
#include "support/temp_dir.h"

namespace {

using tarn::test::Filter;
using tarn::test::ModuleReply;
using tarn::test::MsOf;
using tarn::test::QueryHost;
using tarn::test::RunIsolated;
namespace Keys = Tarn::Module::ConfigKeys;

constexpr uint16_t kDay = 9300;

void ExpectStatus(const ModuleReply& reply, uint32_t status, bool result, const char* what) {
  EXPECT_EQ(reply.result, result) << what;
  EXPECT_TRUE(reply.has_events) << what;
  EXPECT_TRUE(reply.answer.well_formed) << what;
  EXPECT_EQ(reply.answer.format, 1u) << what;
  EXPECT_EQ(reply.answer.status, status) << what;
  EXPECT_EQ(reply.answer.row_count, 0u) << what;
  EXPECT_FALSE(reply.has_token) << what;
}

// 1000 idle rows at seconds 100-1099, 20 process rows at 1100-1119, then
// 100 idle rows at 1120-1219; the row limit is 1000.
void FeedForLimits(QueryHost& host) {
  tarn::test::RowMaker maker(1);
  auto feed = [&](const char* table, uint32_t from, uint32_t to) {
    for (uint32_t s = from; s < to; ++s) {
      ASSERT_TRUE(host.Feed(table, maker.Make(table, tarn::test::EpochOf(kDay, s) * 1000)));
    }
  };
  feed("edr_enter_idle_mode", 100, 1100);
  feed("edr_process_create", 1100, 1120);
  feed("edr_enter_idle_mode", 1120, 1220);
  host.Flush();
}

TEST(ModuleQueryStatusTest, EachStatusThroughHandleEvent) {
  RunIsolated([] {
    tarn::test::TempDir dir;
    QueryHost host(dir.path());
    host.config().SetUInt32(Keys::kQueryRowLimit, 1000);
    ASSERT_TRUE(host.Open());

    // 6: an empty store's window is the widest range; answered as 0.
    ExpectStatus(host.Ask("edr_process_create"), 0, false, "empty store");

    FeedForLimits(host);
    // 1: exactly row_limit rows, positions left in the range; at the
    // configured limit with none left, complete.
    ExpectStatus(host.Ask("edr_enter_idle_mode", "", {{"date_time", 16, MsOf(kDay, 1120), "bigint"}}),
                 1, false, "row limit");
    ModuleReply at_limit =
        host.Ask("edr_enter_idle_mode", "duration", {{"date_time", 16, MsOf(kDay, 1100), "bigint"}});
    EXPECT_EQ(at_limit.answer.status, 0u);
    EXPECT_EQ(at_limit.answer.row_count, 1000u);

    // 2: page = aux_limit - 1 (4 by default).
    Tarn::Events::QueryRecord third_page;
    third_page.table = "edr_process_create";
    third_page.page = 3;
    ExpectStatus(host.Ask(third_page), 2, false, "page limit");

    // 4: contradictory time constraints.
    ExpectStatus(host.Ask("edr_process_create", "",
                          {{"date_time", 2, MsOf(kDay, 1100), "bigint"},
                           {"date_time", 2, MsOf(kDay, 1101), "bigint"}}),
                 4, false, "two equalities");

    // 5: the query cannot run at all; no exception leaves the module.
    ExpectStatus(host.Ask("edr_no_such_table"), 5, false, "unknown table");
    ExpectStatus(host.Ask("edr_process_create", "", {{"pid", 3, "1", "integer"}}), 5, false,
                 "bad operator");

    // 7: a range before the first event; answered as 0.
    ExpectStatus(host.Ask("edr_process_create", "", {{"date_time", 16, MsOf(kDay, 50), "bigint"}}),
                 0, false, "before the store");

    // 9: a token at the range's start.
    Tarn::Events::QueryRecord at_start;
    at_start.table = "edr_process_create";
    at_start.token = host.storage()->GetFirstIterVal();
    ExpectStatus(host.Ask(at_start), 9, false, "token at start");

    // A type-221 record too short to be a query is refused.
    Tarn::Events::DynamicEventBuilder builder;
    ASSERT_TRUE(builder.Begin(221, 1, 0) && builder.AddUInt32(0) && builder.Finish());
    Tarn::Events::Objects::Base broken = builder.Event();
    EXPECT_FALSE(host.module()->HandleEvent(&broken, nullptr));
    EXPECT_EQ(host.storage()->GetSize(), 1120u);  // no query was stored
  });
}

TEST(ModuleQueryStatusTest, QueriesAreAnsweredWhileIntakeIsDisabled) {
  RunIsolated([] {
    tarn::test::TempDir dir;
    std::vector<tarn::test::FedRow> fed;
    tarn::test::RowMaker maker(3);
    for (uint32_t i = 0; i < 30; ++i) {
      const char* table = i % 3 ? "edr_process_create" : "edr_enter_idle_mode";
      const uint64_t second = tarn::test::EpochOf(kDay, 100 + i * 10);
      fed.push_back({table, maker.Make(table, second * 1000), second});
    }
    // The store is written by a module in a process of its own: this one's
    // protobuf must outlive no module.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      QueryHost writer(dir.path());
      bool ok = writer.Open();
      for (const auto& f : fed) ok = ok && writer.Feed(f.table, f.row);
      writer.Flush();
      writer.Close();
      std::_Exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    QueryHost::now_ms() = tarn::test::EpochOf(kDay, 1000) * 1000;  // the writer's day
    QueryHost host(dir.path());
    host.config().SetUInt32(Keys::kIntakeDisabled, 1);
    ASSERT_TRUE(host.Open());
    const uint64_t late_ms = tarn::test::EpochOf(kDay, 900) * 1000;
    EXPECT_FALSE(host.Feed("edr_process_create", maker.Make("edr_process_create", late_ms)));
    ModuleReply reply = host.Ask("edr_process_create", "pid,path");
    EXPECT_TRUE(reply.result);
    EXPECT_EQ(reply.answer.status, 0u);
    EXPECT_EQ(tarn::test::CompareRows(
                  tarn::test::DecodeRows(reply.answer.rows, "edr_process_create"),
                  tarn::test::BruteForce(fed, "edr_process_create", "pid,path", {})),
              "");

    // Single-event requests, kinds 1 to 3.
    uint8_t destination[2048];
    auto single = [&](uint8_t kind, uint64_t time_ms, uint64_t position, uint32_t capacity) {
      Tarn::Events::Objects::StorageQuery request;
      request.kind = kind;
      request.time_ms = time_ms;
      request.position = position;
      request.destination = destination;
      request.capacity = capacity;
      std::memset(destination, 0, sizeof(destination));
      bool ok = host.module()->HandleEvent(&request, nullptr);
      EXPECT_EQ(ok, request.copied != 0);
      return std::vector<uint8_t>(destination, destination + request.copied);
    };
    const auto fifth = tarn::test::RecordOf(*fed[4].row);
    const auto last = tarn::test::RecordOf(*fed.back().row);
    EXPECT_EQ(single(1, tarn::test::EpochOf(kDay, 140) * 1000 + 700, 0, 2048), fifth);
    EXPECT_EQ(single(2, 0, host.storage()->GetFirstIterVal() + (uint64_t{4} << 40), 2048), fifth);
    EXPECT_EQ(single(3, 0, 0, 2048), last);
    EXPECT_TRUE(single(3, 0, 0, static_cast<uint32_t>(last.size()) - 1).empty());  // too small
    EXPECT_EQ(destination[0], 0u);
    EXPECT_TRUE(single(2, 0, ~uint64_t{0}, 2048).empty());                     // invalid
    EXPECT_TRUE(single(2, 0, host.storage()->GetFirstIterVal() + (uint64_t{30} << 40), 2048)
                    .empty());                                                 // past the block
    EXPECT_TRUE(single(1, tarn::test::EpochOf(kDay, 145) * 1000, 0, 2048).empty());  // no event
  });
}

}  // namespace
