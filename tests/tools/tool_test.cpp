// The `tarn` program run as a user runs it: a store filled and described,
// events imported and exported unchanged, bad input refused line by line,
// damage found, a lost index rebuilt, and a store that is in use left alone.

#include <google/protobuf/message.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <map>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>

#include "Keel/OS/FaultInjection.h"
#include "Tarn/Events/Base.h"
#include "manager/writer/StorageManager.h"
#include "osquery/Tables.h"
#include "support/store_fixture.h"
#include "tarn/import/RowJson.h"
#include "tarn/synthetic/Synthetic.h"
#include "tools/edge_rows.h"
#include "tools/tool_runner.h"

namespace {

namespace fs = std::filesystem;
using tarn::test::Lines;
using tarn::test::Tool;
using tarn::test::ToolRun;

int64_t NowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

class TarnTool : public ::testing::Test {
 protected:
  std::string Store(const std::string& name = "store") const { return dir_.File(name); }

  ToolRun Run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), "--quiet");
    return Tool::Run(args, dir_.path(), input);
  }

  // A small synthetic store in small blocks, so it has several of them.
  void Ingest(const std::string& store, uint64_t events, const std::string& days = "2") {
    ToolRun run = Run({"ingest", "--store", store, "--synthetic", "--events",
                       std::to_string(events), "--days", days, "--block-size", "100K"});
    ASSERT_EQ(run.status, 0) << run.err;
  }

  std::vector<std::string> Export(const std::string& store, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"export", "--store", store};
    args.insert(args.end(), extra.begin(), extra.end());
    ToolRun run = Run(args);
    EXPECT_EQ(run.status, 0) << run.err;
    return Lines(run.out);
  }

  nlohmann::json Info(const std::string& store) {
    ToolRun run = Run({"info", "--store", store, "--json"});
    EXPECT_EQ(run.status, 0) << run.err;
    return nlohmann::json::parse(run.out);
  }

  std::string WriteLines(const std::string& name, const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    tarn::test::WriteWholeFile(dir_.File(name), text);
    return dir_.File(name);
  }

  tarn::test::TempDir dir_;
};

TEST_F(TarnTool, SyntheticIngestThenInfoAndVerify) {
  Ingest(Store(), 6000);
  nlohmann::json info = Info(Store());
  EXPECT_EQ(info["index"], "ok");
  EXPECT_EQ(info["events"], 6000u);
  EXPECT_EQ(info["pending_events"], 0u) << "ingest leaves no block open";
  EXPECT_GE(info["days"].get<int>(), 2);
  EXPECT_GT(info["blocks"].get<int>(), 5);
  EXPECT_GT(info["ratio"].get<double>(), 0.05);
  EXPECT_LT(info["ratio"].get<double>(), 0.6);
  uint64_t by_table = 0;
  for (const auto& [table, n] : info["by_table"].items()) by_table += n.get<uint64_t>();
  EXPECT_EQ(by_table, 6000u);
  EXPECT_GT(info["by_table"].size(), 100u);
  uint64_t by_day = 0;
  for (const auto& day : info["by_day"]) by_day += day["events"].get<uint64_t>();
  EXPECT_EQ(by_day, 6000u);

  ToolRun verify = Run({"verify", "--store", Store()});
  EXPECT_EQ(verify.status, 0) << verify.out;
  EXPECT_NE(verify.out.find("6,000 events"), std::string::npos) << verify.out;
  EXPECT_NE(verify.out.find("no faults"), std::string::npos) << verify.out;

  // What the index holds, dump-index shows: one entry per block.
  ToolRun dump = Run({"dump-index", "--store", Store()});
  ASSERT_EQ(dump.status, 0) << dump.err;
  EXPECT_FALSE(std::filesystem::exists(Store() + "/index.json"));  // nothing written into the store
  nlohmann::json index = nlohmann::json::parse(dump.out);
  size_t blocks = 0;
  for (const auto& [day, entry] : index.items()) blocks += entry["blocks"].size();
  EXPECT_EQ(blocks, info["blocks"].get<size_t>());

  // Against limits it says what a store opened with them would evict; an
  // argument nobody takes is named as it was given.
  const size_t days = info["by_day"].size();
  ToolRun limited = Run({"info", "--store", Store(), "--no-tables", "--max-days", "1"});
  EXPECT_NE(limited.out.find(days > 1 ? "the store evicts " + std::to_string(days - 1) + " day"
                                      : std::string("within them")),
            std::string::npos)
      << limited.out;
  ToolRun extra = Run({"info", "--store", Store(), "--bogus", "1"});
  EXPECT_EQ(extra.status, 2);
  EXPECT_NE(extra.err.find("unexpected arguments --bogus 1 (see tarn info --help)"),
            std::string::npos)
      << extra.err;
}

TEST_F(TarnTool, ExportFollowsTimeAndFiltersByTableAndRange) {
  Ingest(Store(), 4000);
  std::vector<std::string> all = Export(Store());
  ASSERT_EQ(all.size(), 4000u);
  uint64_t previous = 0;
  for (const std::string& line : all) {
    uint64_t t = nlohmann::json::parse(line)["date_time"];
    ASSERT_GE(t, previous);
    previous = t;
  }
  std::vector<std::string> creates = Export(Store(), {"--table", "edr_process_create"});
  size_t expected = 0;
  for (const std::string& line : all)
    expected += line.find("\"edr_process_create\"") != std::string::npos;
  EXPECT_EQ(creates.size(), expected);
  for (const std::string& line : creates)
    EXPECT_EQ(line.rfind("{\"table\":\"edr_process_create\"", 0), 0u);

  // A range in the middle: exactly the lines whose time falls in it.
  uint64_t from = nlohmann::json::parse(all[1000])["date_time"];
  uint64_t to = nlohmann::json::parse(all[2999])["date_time"];
  auto iso = [](uint64_t ms) {
    time_t seconds = static_cast<time_t>(ms / 1000);
    char text[40];
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", gmtime(&seconds));
    return std::string(text) + "." + std::to_string(1000 + ms % 1000).substr(1) + "Z";
  };
  std::vector<std::string> range = Export(Store(), {"--from", iso(from), "--to", iso(to)});
  std::vector<std::string> wanted;
  for (const std::string& line : all) {
    uint64_t t = nlohmann::json::parse(line)["date_time"];
    if (t >= from && t <= to) wanted.push_back(line);
  }
  EXPECT_EQ(range, wanted);
  ToolRun unknown = Run({"export", "--store", Store(), "--table", "edr_nothing"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_NE(unknown.err.find("unknown table \"edr_nothing\""), std::string::npos);
}

// One realistic row of every table, then every table at the edges of every
// column kind: import, export, and the lines come back byte for byte.
TEST_F(TarnTool, ExportToKeepsTheEventsOfItsLastSecondInAnyOrder) {
  // Three events of one second, not in millisecond order, then a later one.
  const int64_t second = (NowMs() - 3'600'000) / 1000 * 1000;
  auto line = [](int64_t ms, const char* ssid) {
    return "{\"table\":\"edr_lan_connect\",\"date_time\":" + std::to_string(ms) +
           ",\"ssid\":\"" + ssid + "\"}";
  };
  const std::string file = WriteLines("ms.jsonl", {line(second + 900, "a"), line(second + 100, "b"),
                                                   line(second + 400, "c"),
                                                   line(second + 1'500, "d")});
  ASSERT_EQ(Run({"ingest", "--store", Store(), "--from", file}).status, 0);
  const std::time_t at = static_cast<std::time_t>(second / 1000);
  char to[40];
  std::strftime(to, sizeof(to), "%Y-%m-%dT%H:%M:%S.500Z", std::gmtime(&at));
  std::vector<std::string> got = Export(Store(), {"--to", to});
  ASSERT_EQ(got.size(), 2u) << to;
  EXPECT_NE(got[0].find("\"b\""), std::string::npos) << got[0];
  EXPECT_NE(got[1].find("\"c\""), std::string::npos) << got[1];
}

TEST_F(TarnTool, ImportThenExportRoundTripsEveryTable) {
  std::vector<std::string> lines;
  {
    const int64_t start = NowMs() - 3'600'000;
    Tarn::Tool::SyntheticEvents generator({1, 9, start - 86'400'000, start});
    Tarn::Tool::RowJson rows;
    int64_t t = start;
    for (const auto& table : Tarn::Storage::OSQuery::AllTables()) {
      lines.push_back(Tarn::Tool::RowJson::Write(*generator.Sample(table, t += 7)));
    }
    for (auto edge :
         {tarn::test::Edge::kLargest, tarn::test::Edge::kEmpty, tarn::test::Edge::kMixed}) {
      for (const auto& table : Tarn::Storage::OSQuery::AllTables()) {
        google::protobuf::Message* row = rows.Blank(table.name);
        tarn::test::FillEdges(*row, table, static_cast<uint64_t>(t += 1001), edge);
        lines.push_back(Tarn::Tool::RowJson::Write(*row));
      }
    }
  }
  ASSERT_EQ(lines.size(), 4 * Tarn::Storage::OSQuery::AllTables().size());
  ToolRun import = Run({"ingest", "--store", Store(), "--from", WriteLines("in.jsonl", lines)});
  ASSERT_EQ(import.status, 0) << import.err;
  EXPECT_EQ(Export(Store()), lines);

  // And once more through a second store: export is what import reads.
  ToolRun again = Run({"ingest", "--store", Store("second"), "--from", "-"}, dir_.File("in.jsonl"));
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(Export(Store("second")), lines);
}

TEST_F(TarnTool, BadLinesAreNamedByNumberAndWhatCameBeforeStays) {
  const int64_t now = NowMs();
  auto line = [](int64_t ms, const std::string& rest = "") {
    return "{\"table\":\"edr_process_create\",\"date_time\":" + std::to_string(ms) + rest + "}";
  };
  // Three events already stored.
  ToolRun first = Run(
      {"ingest", "--store", Store(), "--from",
       WriteLines("first.jsonl", {line(now - 400'000), line(now - 399'000), line(now - 398'000)})});
  ASSERT_EQ(first.status, 0) << first.err;
  struct Case {
    std::string bad;
    std::string says;
  } cases[] = {
      {"{\"table\": ", "not valid JSON"},
      {"{\"table\":\"edr_nope\",\"date_time\":1}", "unknown table \"edr_nope\""},
      {line(now - 30'000, ",\"pidx\":1"), "has no column 'pidx'"},
      {line(now - 30'000, ",\"pid\":\"x\""), "column 'pid' takes a whole number"},
      {line(now + 3'600'000), "lies in the future"},
      {"", "is earlier than"},  // before the line ahead of it: made below
      {line(946'684'799'000), "before 2000-01-01"},
  };
  uint64_t stored = 3;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bad);
    // The store keeps time to the second: lines lie seconds apart.
    const int64_t base = now - 300'000 + static_cast<int64_t>(stored) * 5'000;
    const std::string bad = c.bad.empty() ? line(base + 500) : c.bad;
    std::string file =
        WriteLines("bad.jsonl", {line(base), line(base + 2'000), bad, line(base + 3'000)});
    ToolRun run = Run({"ingest", "--store", Store(), "--from", file});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find(file + ":3: "), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
    stored += 2;  // the two lines before the bad one, not the one after it
    EXPECT_EQ(Export(Store()).size(), stored);
  }
  // A time before the newest stored one is refused even on the first line.
  ToolRun older = Run(
      {"ingest", "--store", Store(), "--from", WriteLines("older.jsonl", {line(now - 3'600'000)})});
  EXPECT_EQ(older.status, 1);
  EXPECT_NE(older.err.find(":1: "), std::string::npos) << older.err;
  EXPECT_NE(older.err.find("the newest event already in the store"), std::string::npos)
      << older.err;
  // With --skip-bad the import goes on past a bad line and still fails.
  const int64_t base = now - 100'000;
  std::string file = WriteLines("skip.jsonl", {line(base), "oops", line(base + 2'000)});
  ToolRun run = Run({"ingest", "--store", Store(), "--from", file, "--skip-bad"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find(file + ":2: not valid JSON"), std::string::npos) << run.err;
  EXPECT_EQ(Export(Store()).size(), stored + 2);
  // --sort puts a file's own lines in order before they go in.
  file = WriteLines("unsorted.jsonl", {line(base + 20'000), line(base + 10'000)});
  EXPECT_EQ(Run({"ingest", "--store", Store(), "--from", file}).status, 1);  // stores the first
  file = WriteLines("unsorted.jsonl", {line(base + 40'000), line(base + 30'000)});
  EXPECT_EQ(Run({"ingest", "--store", Store(), "--from", file, "--sort"}).status, 0);
  EXPECT_EQ(Export(Store()).size(), stored + 2 + 1 + 2);
}

class DamagedStore : public TarnTool {
 protected:
  void SetUp() override {
    Ingest(Store(), 5000);
    for (const auto& entry : fs::directory_iterator(Store())) {
      std::string name = entry.path().filename().string();
      if (name.rfind("storage.", 0) == 0 && name.size() == 20 && name < first_day_file_) {
        first_day_file_ = name;
      }
    }
    ASSERT_NE(first_day_file_, "~");
    path_ = Store() + "/" + first_day_file_;
  }
  std::string first_day_file_ = "~";
  std::string path_;
};

TEST_F(DamagedStore, VerifyFindsAMissingFile) {
  fs::remove(path_);
  ToolRun run = Run({"verify", "--store", Store()});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.out.find(first_day_file_ + " is missing"), std::string::npos) << run.out;
}

TEST_F(DamagedStore, RecoverBringsBackEveryEventAfterTheIndexIsLost) {
  std::vector<std::string> before = Export(Store());
  ASSERT_EQ(before.size(), 5000u);
  const std::string index = Store() + "/storage.index.db";
  const std::string saved = tarn::test::ReadWholeFile(index);
  fs::remove(index);
  // And a day file's header went bad: its blocks are whole behind it.
  std::string day_file = tarn::test::ReadWholeFile(path_);
  day_file[1] ^= 0x10;
  tarn::test::WriteWholeFile(path_, day_file);
  ToolRun lost = Run({"verify", "--store", Store()});
  EXPECT_EQ(lost.status, 1);
  EXPECT_NE(lost.out.find("storage.index.db is missing"), std::string::npos) << lost.out;

  ToolRun recover = Run({"recover", "--store", Store()});
  ASSERT_EQ(recover.status, 0) << recover.err;
  EXPECT_NE(recover.out.find("repaired " + first_day_file_ + ": its header was damaged"),
            std::string::npos)
      << recover.out;
  EXPECT_NE(recover.out.find("5,000 events"), std::string::npos) << recover.out;
  EXPECT_EQ(tarn::test::ReadWholeFile(index), saved) << "the same index as the store wrote";
  EXPECT_EQ(Run({"verify", "--store", Store()}).status, 0);
  EXPECT_EQ(Export(Store()), before);
}

TEST_F(DamagedStore, RecoverPassesOverADamagedBlockAndKeepsTheRest) {
  std::vector<std::string> before = Export(Store());
  fs::remove(Store() + "/storage.index.db");
  // The largest day file holds several blocks whatever the time of day the
  // synthetic days end at.
  fs::path largest;
  for (const auto& entry : fs::directory_iterator(Store())) {
    const std::string name = entry.path().filename().string();
    if (name.size() == 20 && name.rfind("storage.", 0) == 0 &&
        (largest.empty() || fs::file_size(entry.path()) > fs::file_size(largest))) {
      largest = entry.path();
    }
  }
  std::string bytes = tarn::test::ReadWholeFile(largest.string());
  bytes[bytes.size() / 2] ^= 0x10;  // inside some block's payload
  tarn::test::WriteWholeFile(largest.string(), bytes);

  ToolRun recover = Run({"recover", "--store", Store()});
  EXPECT_EQ(recover.status, 1) << "a lost block is reported";
  EXPECT_NE(recover.out.find("lost     " + largest.filename().string()), std::string::npos)
      << recover.out;
  // The index names every other block: verify finds no fault, only the
  // block no record names, and export gives every other event.
  ToolRun verify = Run({"verify", "--store", Store()});
  EXPECT_EQ(verify.status, 0) << verify.out;
  EXPECT_NE(verify.out.find("hold a block that does not decode"), std::string::npos)
      << verify.out;
  std::vector<std::string> after = Export(Store());
  EXPECT_LT(after.size(), before.size());
  EXPECT_GT(after.size(), before.size() / 2);
  size_t j = 0;
  for (const std::string& line : before) j += j < after.size() && after[j] == line;
  EXPECT_EQ(j, after.size()) << "what remains is what was there, in order";
}

TEST_F(DamagedStore, ExportReportsEventsItCannotReadAndGivesTheRest) {
  std::string bytes = tarn::test::ReadWholeFile(path_);
  bytes[bytes.size() / 2] ^= 0x10;
  tarn::test::WriteWholeFile(path_, bytes);
  ToolRun run = Run({"export", "--store", Store()});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("events could not be read"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("could not be read: "), std::string::npos) << "the block is named\n"
                                                                     << run.err;
  size_t lines = Lines(run.out).size();
  EXPECT_GT(lines, 2500u);
  EXPECT_LT(lines, 5000u);
}

TEST_F(DamagedStore, SqlReadsAroundABlockItCannotReadAndNamesIt) {
  // The block that holds the store's first second, one in the middle, and
  // the one that holds its last: where a query's range starts, where its
  // scan passes, and where it ends.
  std::map<std::string, std::string> pristine;
  std::vector<std::string> day_files;
  for (const auto& entry : fs::directory_iterator(Store())) {
    const std::string name = entry.path().filename().string();
    pristine[name] = tarn::test::ReadWholeFile(entry.path().string());
    if (name.size() == 20 && name.rfind("storage.", 0) == 0) day_files.push_back(name);
  }
  std::sort(day_files.begin(), day_files.end());
  ASSERT_GE(day_files.size(), 2u);
  const std::vector<std::pair<std::string, double>> places = {
      {day_files.front(), 0.5}, {day_files[1], 0.5}, {day_files.back(), 0.999}};
  for (const auto& [file, where] : places) {
    SCOPED_TRACE(file + " at " + std::to_string(where));
    for (const auto& [name, bytes] : pristine) {
      tarn::test::WriteWholeFile(Store() + "/" + name, bytes);
    }
    std::string bytes = pristine[file];
    bytes[static_cast<size_t>(bytes.size() * where)] ^= 0x10;
    tarn::test::WriteWholeFile(Store() + "/" + file, bytes);
    // Export walks around the block: its rows per table are what SQL gives.
    ToolRun exported = Run({"export", "--store", Store()});
    ASSERT_EQ(exported.status, 1);
    std::map<std::string, uint64_t> per_table;
    for (const std::string& line : Lines(exported.out)) {
      ++per_table[nlohmann::json::parse(line)["table"].get<std::string>()];
    }
    const size_t named = exported.err.find("could not be read: ");
    ASSERT_NE(named, std::string::npos) << exported.err;
    const size_t from = exported.err.rfind("block ", named);
    const std::string block = exported.err.substr(from, named - from);
    // The tables with most events: rows on every side of the block.
    std::vector<std::pair<uint64_t, std::string>> largest;
    for (const auto& [table, count] : per_table) largest.push_back({count, table});
    std::sort(largest.rbegin(), largest.rend());
    largest.resize(std::min<size_t>(largest.size(), 6));
    std::sort(largest.begin(), largest.end(),
              [](const auto& a, const auto& b) { return a.second < b.second; });
    std::string sql, expected;
    for (const auto& [count, table] : largest) {
      sql += (sql.empty() ? "SELECT " : " UNION ALL SELECT ") +
             ("'" + table + "', count(*) FROM " + table);
      expected += table + "," + std::to_string(count) + "\n";
    }
    for (const char* threads : {"1", "3"}) {
      SCOPED_TRACE(std::string("threads ") + threads);
      ToolRun run = Run({"sql", "--store", Store(), "--threads", threads, "--format", "csv", sql});
      EXPECT_EQ(run.status, 1) << "the block left out is reported";
      EXPECT_NE(run.err.find(block + "could not be read"), std::string::npos) << run.err;
      std::vector<std::string> lines = Lines(run.out);
      if (lines.empty()) continue;
      std::sort(lines.begin() + 1, lines.end());
      std::string got;
      for (size_t i = 1; i < lines.size(); ++i) got += lines[i] + "\n";
      EXPECT_EQ(got, expected) << run.err;
    }
  }
}

TEST_F(DamagedStore, WhatACrashLeavesIsAWarningNotAFault) {
  // Bytes after the last indexed block (a block written but not yet indexed,
  // or torn) and a day file the index does not name.
  std::string bytes = tarn::test::ReadWholeFile(path_);
  tarn::test::WriteWholeFile(path_, bytes + std::string(300, '\x5a'));
  tarn::test::WriteWholeFile(Store() + "/storage.00100.002.db", bytes);
  ToolRun verify = Run({"verify", "--store", Store()});
  EXPECT_EQ(verify.status, 0) << verify.out;
  EXPECT_NE(verify.out.find("300 bytes after the last indexed block"), std::string::npos)
      << verify.out;
  EXPECT_NE(verify.out.find("storage.00100.002.db"), std::string::npos) << verify.out;
  nlohmann::json info = Info(Store());
  EXPECT_EQ(info["loose_files"], 1);
  EXPECT_EQ(info["events"], 5000u);
}

TEST_F(TarnTool, FilesTheStoreSetAsideComeBackThroughRecover) {
  namespace Faults = Keel::OS::Faults;
  using Tarn::Storage::StorageManager;
  const std::string store = Store("aside");
  fs::create_directories(store);
  Tarn::Storage::Settings settings = Tarn::Storage::Settings::default_();
  settings.block_buffer_size = 102'400;
  tarn::test::FakeClock clock(tarn::test::EpochOf(9000, 100));
  uint32_t tag = 0;
  auto add = [&](StorageManager& manager, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      clock.SetDay(9000, 100 + tag);
      std::vector<uint8_t> record = tarn::test::MakeEvent(tag++, 1'500);
      Tarn::Events::Objects::Base event(record.data(), record.size());
      ASSERT_TRUE(manager.AddEvent(event));
    }
  };
  {
    StorageManager manager;
    ASSERT_TRUE(manager.Create(settings, &clock, 0, store.c_str()));
    add(manager, 150);
    ASSERT_TRUE(manager.Flush());
    add(manager, 10);
    ASSERT_TRUE(manager.Stop());
  }
  // The shutdown file and the day file keep failing for one run, as a bad
  // sector or another program's lock would: both go aside, storing goes on.
  const uint32_t forever = Faults::Rule::kForever;
  Faults::AddRule({store + "/storage.final.db", Faults::Read, 1, Faults::Eio, forever, true});
  Faults::AddRule({store + "/storage.09000.002.db", Faults::Open, 1, Faults::Eio, forever, true});
  {
    StorageManager manager;
    ASSERT_TRUE(manager.Create(settings, &clock, 0, store.c_str()));
    add(manager, 30);
    ASSERT_TRUE(manager.Flush());
    add(manager, 5);
    ASSERT_TRUE(manager.Stop());
  }
  Faults::ClearRules();
  nlohmann::json info = Info(store);
  EXPECT_EQ(info["set_aside"].size(), 2u) << info.dump();
  EXPECT_EQ(info["events"], 30u);
  ToolRun verify = Run({"verify", "--store", store});
  EXPECT_EQ(verify.status, 1);
  EXPECT_NE(verify.out.find("storage.09000.002.db.unreadable"), std::string::npos) << verify.out;
  EXPECT_NE(verify.out.find("storage.final.db.unreadable"), std::string::npos) << verify.out;

  ToolRun recover = Run({"recover", "--store", store});
  EXPECT_EQ(recover.status, 0) << recover.out << recover.err;
  info = Info(store);
  EXPECT_TRUE(info["set_aside"].empty()) << recover.out;
  EXPECT_EQ(info["events"], 150u + 10 + 30) << recover.out;
  EXPECT_EQ(info["pending_events"], 5u);
  EXPECT_EQ(Run({"verify", "--store", store}).status, 0);
  // The store reads them all, in order of the seconds it recorded.
  StorageManager manager;
  ASSERT_TRUE(manager.Create(settings, &clock, 0, store.c_str()));
  ASSERT_TRUE(manager.Stop());
  std::vector<tarn::test::StoredEvent> events;
  ASSERT_TRUE(tarn::test::ReadIndexedEvents(store, events));
  ASSERT_EQ(events.size(), 195u);
  for (size_t i = 1; i < events.size(); ++i) {
    EXPECT_LE(events[i - 1].second, events[i].second) << i;
  }
}

TEST_F(TarnTool, ASecondProcessIsToldTheStoreIsInUse) {
  Ingest(Store(), 100);
  // A first tarn holds the store open while it waits for its input.
  int pipe_fds[2];
  // Close-on-exec, so that no program holds the write end but this test.
  ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);
  tarn::test::TempDir first_scratch;
  pid_t first = Tool::Start({"--quiet", "ingest", "--store", Store(), "--from", "-"},
                            first_scratch.path(), "", pipe_fds[0]);
  close(pipe_fds[0]);
  // Wait until it holds the lock (a sanitizer build on a loaded machine
  // may take seconds to get there).
  bool held = false;
  for (int i = 0; i < 3'000 && !held; ++i) {
    int fd = open((Store() + "/storage.lock").c_str(), O_RDWR);
    held = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0;
    if (fd >= 0) close(fd);
    if (!held) usleep(20'000);
  }
  ASSERT_TRUE(held);
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"ingest", "--store", Store(), "--synthetic", "--events", "5"},
        std::vector<std::string>{"export", "--store", Store()},
        std::vector<std::string>{"verify", "--store", Store()},
        std::vector<std::string>{"recover", "--store", Store()}}) {
    ToolRun second = Run(args);
    EXPECT_EQ(second.status, 1) << args[0];
    EXPECT_NE(second.err.find("is in use by another process"), std::string::npos) << second.err;
  }
  // The first one is unharmed: it takes its event and finishes.
  std::string line = "{\"table\":\"edr_lan_connect\",\"date_time\":" + std::to_string(NowMs()) +
                     ",\"ssid\":\"CorpWiFi\"}\n";
  ASSERT_EQ(write(pipe_fds[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
  close(pipe_fds[1]);
  ToolRun done = Tool::Wait(first, first_scratch.path());
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(Export(Store()).size(), 101u);
}

TEST_F(TarnTool, IngestPrintsTheStoresTelemetryReport) {
  ToolRun run = Run({"ingest", "--store", Store(), "--synthetic", "--events", "1500", "--days", "1",
                     "--telemetry"});
  ASSERT_EQ(run.status, 0) << run.err;
  size_t brace = run.out.find("{");
  ASSERT_NE(run.out.find("tarn_storage_telemetry\n{"), std::string::npos) << run.out;
  size_t end = run.out.find("\n}\n", brace);
  ASSERT_NE(end, std::string::npos);
  nlohmann::json report = nlohmann::json::parse(run.out.substr(brace, end + 2 - brace));
  EXPECT_EQ(report["events_count"], 1500);
  EXPECT_GE(report["blocks_count"].get<int>(), 1);
}

TEST_F(TarnTool, ASecondSyntheticIngestStartsAfterWhatTheStoreHolds) {
  ToolRun first = Run({"ingest", "--store", Store(), "--synthetic", "--events", "2000", "--days",
                       "3", "--end", "2026-01-10", "--block-size", "100K"});
  ASSERT_EQ(first.status, 0) << first.err;
  std::vector<std::string> before = Export(Store());
  uint64_t newest = nlohmann::json::parse(before.back())["date_time"];
  // Ending before what the store holds leaves no room.
  ToolRun early = Run({"ingest", "--store", Store(), "--synthetic", "--end", "2026-01-09"});
  EXPECT_EQ(early.status, 1);
  EXPECT_NE(early.err.find("no room before --end"), std::string::npos) << early.err;
  // Ending later, the new events all come after the old ones.
  ToolRun second = Run({"ingest", "--store", Store(), "--synthetic", "--events", "1000", "--days",
                        "3", "--end", "2026-01-11", "--block-size", "100K"});
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_NE(second.err.find("the new ones start after it"), std::string::npos) << second.err;
  std::vector<std::string> after = Export(Store());
  ASSERT_EQ(after.size(), 3000u);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
  EXPECT_GT(nlohmann::json::parse(after[2000])["date_time"].get<uint64_t>() / 1000, newest / 1000);
  // A range after the last event is empty, not an error.
  EXPECT_TRUE(Export(Store(), {"--from", "2026-01-12"}).empty());
}

TEST_F(TarnTool, OneOfAnythingIsCountedInTheSingular) {
  // A store of one event: every summary a command prints counts ones.
  const std::string file = WriteLines(
      "one.jsonl", {R"({"table":"edr_process_create","date_time":1768003200000,"pid":7})",
                    R"({"table":"edr_nothing"})"});
  std::string said;
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"ingest", "--store", Store(), "--from", file},
           {"info", "--store", Store()},
           {"verify", "--store", Store()},
           {"recover", "--store", Store()},
           {"dump-index", "--store", Store(), "-o", dir_.File("index.json")},
           {"export", "--store", Store(), "-o", dir_.File("out.jsonl")},
           {"sql", "--store", Store(), "--stats", "SELECT pid FROM edr_process_create"}}) {
    ToolRun run = Run(args);
    said += run.out + run.err;
  }
  EXPECT_NE(said.find("stored 1 event "), std::string::npos) << said;
  const std::regex plural_of_one(
      R"(\b1 (events|blocks|days|day files|lines|rows|faults|warnings|queries|answers|tables)\b)");
  std::smatch found;
  EXPECT_FALSE(std::regex_search(said, found, plural_of_one)) << found.str() << " in\n" << said;
}

TEST_F(TarnTool, AMissingOrForeignModuleIsNamed) {
  auto run_with = [this](const std::string& module) {
    return Tool::Wait(Tool::Start({"ingest", "--store", Store(), "--synthetic", "--events", "5"},
                                  dir_.path(), "", -1, {"TARN_MODULE_PATH=" + module}),
                      dir_.path());
  };
  ToolRun missing = run_with(dir_.File("libnothing.so"));
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("TARN_MODULE_PATH names"), std::string::npos) << missing.err;
  // A shared library that is not a module: it exports no Init.
  ToolRun foreign =
      run_with(fs::path(TARN_TOOL_PATH).parent_path().string() + "/../lib/libkeel.so");
  EXPECT_EQ(foreign.status, 1);
  EXPECT_NE(foreign.err.find("does not export Init and Uninit"), std::string::npos) << foreign.err;
}

TEST_F(TarnTool, TheDemoFillsAStoreThatStaysWhenNamed) {
  ToolRun demo = Run({"demo", "--store", Store(), "--days", "2", "--events", "3000"});
  ASSERT_EQ(demo.status, 0) << demo.err;
  EXPECT_NE(demo.out.find("ingested 3,000 events"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("compression"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("events by table"), std::string::npos) << demo.out;
  EXPECT_EQ(Info(Store())["events"], 3000u);
  EXPECT_EQ(Run({"verify", "--store", Store()}).status, 0);
}

TEST_F(TarnTool, UsageErrorsSayWhatIsExpected) {
  // What tarn does not take exits 2, as command-line tools do; a command
  // that ran into a fault exits 1.
  struct Case {
    std::vector<std::string> args;
    const char* says;
  };
  const std::vector<Case> usage = {
      {{"nosuch"}, "\"nosuch\" is no command of tarn's"},
      {{"info"}, "--store is required"},
      {{"info", "--store", Store(), "--bogus"}, "--bogus"},
      {{"ingest", "--store", Store()}, "either --synthetic or --from"},
      {{"ingest", "--store", Store(), "--synthetic", "--block-size", "1K"},
       "--block-size must be at least"},
      {{"ingest", "--store", Store(), "--synthetic", "--end", "2999-01-01"}, "lies in the future"},
      {{"sql", "--store", Store(), "--format", "xml", "SELECT 1"}, "--format takes"},
  };
  for (const Case& c : usage) {
    ToolRun run = Run(c.args);
    EXPECT_EQ(run.status, 2) << c.args[0];
    EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
  }
  EXPECT_EQ(Run({"--help"}).status, 0);
  ToolRun none = Run({"info", "--store", Store("nothing-here")});
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("there is no store"), std::string::npos);
}

}  // namespace
