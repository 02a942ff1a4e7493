// The tool's host in this process: events fed through the loaded module land
// on their own day and second, and a query reaches the module and is answered
// into the host's message. Each case runs in a child process: closing the
// module shuts protobuf down for the rest of the process.

#include <gtest/gtest.h>

#include <functional>

#include "Keel/OS/Time.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "support/isolated.h"
#include "support/temp_dir.h"
#include "tarn/cli/TextForms.h"
#include "tarn/host/EventFeed.h"
#include "tarn/host/ModuleHost.h"
#include "tarn/import/RowJson.h"

namespace Tarn::Tool {
namespace {

using tarn::test::RunIsolated;

constexpr int64_t kDayMs = 86'400'000;

TEST(ModuleHost, EventsLandOnTheirOwnDayAndSecondAndQueriesAreAnswered) {
  RunIsolated([] {
    tarn::test::TempDir dir;
    HostOptions options;
    options.store = dir.File("store");
    ModuleHost host;
    std::string error;
    ASSERT_TRUE(host.Open(options, error)) << error;
    ASSERT_NE(host.Storage(), nullptr);

    // Three events, days apart and in the past.
    const int64_t now = RealNowMs();
    const int64_t times[] = {now - 3 * kDayMs + 250, now - 2 * kDayMs + 500, now - kDayMs};
    EventFeed feed(host, host.NewestStoredAtOpen());
    RowJson rows;
    for (int64_t t : times) {
      google::protobuf::Message* row = nullptr;
      ASSERT_TRUE(rows.Parse("{\"table\":\"edr_lan_connect\",\"date_time\":" + std::to_string(t) +
                                 ",\"ssid\":\"CorpWiFi\"}",
                             row, error))
          << error;
      ASSERT_TRUE(feed.Add(*row, error)) << error;
    }
    // Outside a replay the store reads the real time again.
    EXPECT_GE(static_cast<int64_t>(Keel::OS::Time::GetSystemTime()), now);

    Comm::Interface::IEventStorage& storage = *host.Storage();
    storage.Flush();
    EXPECT_EQ(storage.GetSize(), 3u);
    size_t i = 0;
    Events::GenericEventHolder holder;
    for (uint64_t p = storage.GetFirstIterVal(); storage.IsValid(p) && i < 3; ++i) {
      Keel::OS::DateTime when;
      ASSERT_TRUE(storage.GetTime(p, when));
      EXPECT_EQ(when.ToSecondsSinceEpoch(), times[i] / 1000) << "event " << i;
      ASSERT_TRUE(storage.GetEvent(p, &holder));
      EXPECT_EQ(static_cast<int64_t>(holder.Event().Header().TimeStampMs()), times[i]);
      if (!storage.Increment(p)) break;
    }
    EXPECT_EQ(i, 2u) << "the walk ends on the third event";

    Events::QueryRecord query;
    query.table = "edr_lan_connect";
    query.columns = "date_time,ssid";
    hx::MessageBus::Msg answer;
    EXPECT_TRUE(host.Ask(query, answer));
    auto events = answer.GetField("events");
    ASSERT_TRUE(events.has_value());
    EXPECT_NE(events->find("CorpWiFi"), std::string_view::npos) << "the rows carry the column";
    EXPECT_FALSE(answer.HasField("token")) << "a whole answer needs no continuation";
    EXPECT_TRUE(host.Close(error)) << error;
    EXPECT_FALSE(host.Ask(query, answer)) << "a closed host asks nothing";
  });
}

TEST(ModuleHost, OpeningRefusesLimitsTheStoreWouldRefuse) {
  tarn::test::TempDir dir;
  HostOptions options;
  options.store = dir.File("store");
  options.limits.max_days = 1;
  ModuleHost host;
  std::string error;
  EXPECT_FALSE(host.Open(options, error));
  EXPECT_NE(error.find("--max-days must lie between 2 and 511"), std::string::npos) << error;
  options.limits.max_days.reset();
  options.limits.max_size = 1024;
  EXPECT_FALSE(host.Open(options, error));
  EXPECT_NE(error.find("--max-size must be at least"), std::string::npos) << error;
  EXPECT_FALSE(host.IsOpen());
}

}  // namespace
}  // namespace Tarn::Tool
