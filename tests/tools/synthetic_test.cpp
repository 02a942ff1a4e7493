// The synthetic endpoint: reproducible, in time order, every table, and a
// story that holds together (one process tree, connections that close after
// they open) with the planted threads in it.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "osquery/Tables.h"
#include "tarn/import/RowJson.h"
#include "tarn/synthetic/Synthetic.h"

namespace Tarn::Tool {
namespace {

using google::protobuf::Message;

constexpr int64_t kEnd = 1'790'000'000'000;  // 2026-09-21, a Monday
constexpr int64_t kDay = 86'400'000;

uint64_t U(const Message& row, const std::string& name) {
  const auto* field = row.GetDescriptor()->FindFieldByName(name);
  if (field == nullptr) return 0;
  const auto* r = row.GetReflection();
  return field->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_UINT64
             ? r->GetUInt64(row, field)
             : r->GetUInt32(row, field);
}

std::string S(const Message& row, const std::string& name) {
  const auto* field = row.GetDescriptor()->FindFieldByName(name);
  return field == nullptr ? "" : row.GetReflection()->GetString(row, field);
}

bool Has(const Message& row, const std::string& name) {
  return row.GetDescriptor()->FindFieldByName(name) != nullptr;
}

std::vector<std::string> Generate(uint64_t seed, uint64_t events, int days = 2) {
  SyntheticEvents generator({events, seed, kEnd - days * kDay, kEnd});
  std::vector<std::string> lines;
  while (const Message* row = generator.Next()) lines.push_back(RowJson::Write(*row));
  return lines;
}

TEST(SyntheticEvents, TheSeedDecidesEveryByte) {
  std::vector<std::string> first = Generate(7, 3000);
  ASSERT_EQ(first.size(), 3000u);
  EXPECT_EQ(Generate(7, 3000), first);
  std::vector<std::string> other = Generate(8, 3000);
  ASSERT_EQ(other.size(), 3000u);
  size_t same = 0;
  for (size_t i = 0; i < first.size(); ++i) same += first[i] == other[i];
  EXPECT_LT(same, 30u);
}

TEST(SyntheticEvents, TimesRiseInsideTheSpanAndFollowTheWorkingDay) {
  const int64_t start = kEnd - 7 * kDay;
  SyntheticEvents generator({20000, 3, start, kEnd});
  int64_t previous = start;
  uint64_t count = 0;
  uint64_t office = 0;   // 08:00-17:00 on weekdays
  uint64_t weekend = 0;  // Saturday and Sunday
  while (const Message* row = generator.Next()) {
    int64_t t = static_cast<int64_t>(U(*row, "date_time"));
    ASSERT_GE(t, previous);
    ASSERT_LT(t, kEnd);
    previous = t;
    ++count;
    int64_t hour = t / 3'600'000 % 24;
    int weekday = static_cast<int>((t / kDay + 4) % 7);
    weekend += weekday == 0 || weekday == 6;
    office += weekday != 0 && weekday != 6 && hour >= 8 && hour < 17;
  }
  EXPECT_EQ(count, 20000u);
  // Office hours are 9 of 24 hours on 5 of 7 days, a quarter of the week:
  // they carry far more than a quarter of the events, weekends far less.
  EXPECT_GT(office, count / 2);
  EXPECT_LT(weekend, count * 2 / 10);
}

TEST(SyntheticEvents, EveryTableAppearsAndProcessFileAndNetworkLead) {
  SyntheticEvents generator({30000, 1, kEnd - 3 * kDay, kEnd});
  std::map<std::string, uint64_t> counts;
  while (const Message* row = generator.Next()) ++counts[row->GetDescriptor()->name()];
  EXPECT_EQ(counts.size(), Storage::OSQuery::AllTables().size());
  uint64_t heavy = 0;
  for (const auto& [table, n] : counts) {
    if (table.rfind("edr_process", 0) == 0 || table.rfind("edr_file", 0) == 0 ||
        table.rfind("edr_network", 0) == 0) {
      heavy += n;
    }
  }
  EXPECT_GT(heavy, 30000u * 6 / 10);
  EXPECT_GT(counts["edr_file_read"], counts["edr_user_login"] * 10);
}

// Replays the events and checks what a real endpoint guarantees.
TEST(SyntheticEvents, TheProcessTreeAndTheConnectionsHoldTogether) {
  SyntheticEvents generator({40000, 5, kEnd - 3 * kDay, kEnd});
  std::map<uint64_t, uint64_t> pid_of;    // every process seen: puid -> pid
  std::map<uint64_t, uint64_t> space_of;  // where known: puid -> pid space
  std::set<uint64_t> live;
  std::set<uint64_t> ended;
  std::map<uint64_t, uint64_t> connections;  // id -> puid
  uint64_t created = 0, terminated = 0, closed = 0;
  while (const Message* row = generator.Next()) {
    const std::string table = row->GetDescriptor()->name();
    if (!Has(*row, "puid") || !Has(*row, "pid")) continue;
    const uint64_t puid = U(*row, "puid");
    const uint64_t pid = U(*row, "pid");
    ASSERT_EQ(ended.count(puid), 0u) << table << ": an ended process acts again";
    if (table == "edr_process_create") {
      ++created;
      ASSERT_EQ(pid_of.count(puid), 0u) << "a new process has a new puid";
      ASSERT_EQ(ended.count(U(*row, "parent_puid")), 0u) << "the parent of a new process runs";
      for (uint64_t other : live) {
        ASSERT_FALSE(pid_of[other] == pid && space_of.count(other) != 0 &&
                     space_of[other] == U(*row, "pid_space"))
            << "pid " << pid << " is given to two running processes";
      }
      EXPECT_EQ(U(*row, "pid_time_stamp"), U(*row, "date_time"));
      EXPECT_NE(S(*row, "command_line").find(S(*row, "process_name")), std::string::npos);
    }
    auto known = pid_of.emplace(puid, pid);
    ASSERT_EQ(known.first->second, pid) << table << ": a process keeps its pid";
    if (Has(*row, "pid_space")) space_of[puid] = U(*row, "pid_space");
    live.insert(puid);
    if (table == "edr_process_terminate") {
      ++terminated;
      live.erase(puid);
      ended.insert(puid);
    }
    if (Has(*row, "connection_id") && table.rfind("edr_network", 0) == 0) {
      const uint64_t connection = U(*row, "connection_id");
      if (table == "edr_network_disconnect") {
        auto it = connections.find(connection);
        if (it != connections.end()) {
          EXPECT_EQ(it->second, puid) << "a connection closes in the process that opened it";
          ++closed;
        }
      } else {
        connections[connection] = puid;
      }
    }
  }
  EXPECT_GT(created, 1000u);
  EXPECT_GT(terminated, 1000u);
  EXPECT_GT(closed, 1000u);
  // Creates and ends balance out: the endpoint keeps a steady process count.
  EXPECT_LT(created - terminated, 300u);
}

TEST(SyntheticEvents, TheThreadsToFindAreThere) {
  SyntheticEvents generator({60000, 1, kEnd - 3 * kDay, kEnd});
  uint64_t encoded = 0;
  std::set<std::string> dropped;  // executables written to a temporary or download folder
  uint64_t dropped_run = 0;
  std::map<std::string, std::set<std::string>> talkers;  // remote address -> process paths
  std::map<uint64_t, std::string> path_of;
  while (const Message* row = generator.Next()) {
    const std::string table = row->GetDescriptor()->name();
    const std::string path = S(*row, "path");
    if (table == "edr_process_create") {
      path_of[U(*row, "puid")] = path;
      if (S(*row, "command_line").find(" -Enc ") != std::string::npos) {
        ++encoded;
        EXPECT_NE(path.find("powershell.exe"), std::string::npos);
      }
      dropped_run += dropped.count(path);
    }
    if ((table == "edr_file_create" || table == "edr_file_write") && path.size() > 4 &&
        (((path.find("\\Temp\\") != std::string::npos ||
           path.find("\\Downloads\\") != std::string::npos) &&
          path.compare(path.size() - 4, 4, ".exe") == 0) ||
         path.rfind("/tmp/.", 0) == 0)) {
      dropped.insert(path);
    }
    if (table == "edr_network_generic_connect") {
      auto it = path_of.find(U(*row, "puid"));
      if (it != path_of.end()) talkers[S(*row, "remote_ip")].insert(it->second);
    }
  }
  EXPECT_GT(encoded, 0u);
  EXPECT_FALSE(dropped.empty());
  EXPECT_GT(dropped_run, 0u) << "a dropped executable runs";
  // Some addresses are contacted only by programs that were dropped.
  uint64_t rare_only = 0;
  for (const auto& [address, paths] : talkers) {
    bool all_dropped = true;
    for (const std::string& p : paths) all_dropped &= dropped.count(p) != 0;
    rare_only += all_dropped;
  }
  EXPECT_GT(rare_only, 0u);
}

}  // namespace
}  // namespace Tarn::Tool
