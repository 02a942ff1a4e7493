// SQL over the store: `tarn sql` answers held against answers worked out
// here from the very events imported (each operator, LIKE, time ranges,
// joins, counts and groups), proof that a date_time range is all the store
// scans, statuses turned into advice, and in process the rule every pushed
// term must keep: the store answers a superset of what SQLite selects.

#include <google/protobuf/message.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <ctime>
#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>

#include "osquery/ConstraintsList.h"
#include "osquery/MatchColumns.h"
#include "osquery/Tables.h"
#include "osquery/TimeRange.h"
#include "tarn/import/RowJson.h"
#include "tarn/sql/ResultPrinter.h"
#include "tarn/sql/SqlConstraints.h"
#include "tarn/synthetic/Synthetic.h"
#include "tools/tool_runner.h"

namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;
using tarn::test::Lines;
using tarn::test::Tool;
using tarn::test::ToolRun;
using Tarn::Tool::SqlConstraint;
using Tarn::Tool::SqlValue;

constexpr int64_t kHourMs = 3'600'000;

int64_t NowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// SQL LIKE as SQLite has it: "%" any run, "_" one UTF-8 character, ASCII
// letters in either case.
bool Like(std::string_view text, std::string_view pattern) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '%') {
    for (size_t i = 0; i <= text.size(); ++i) {
      if (Like(text.substr(i), pattern.substr(1))) return true;
    }
    return false;
  }
  if (text.empty()) return false;
  size_t one = 1;
  while (one < text.size() && (static_cast<uint8_t>(text[one]) & 0xC0) == 0x80) ++one;
  if (pattern[0] == '_') return Like(text.substr(one), pattern.substr(1));
  auto fold = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return fold(text[0]) == fold(pattern[0]) && Like(text.substr(1), pattern.substr(1));
}

using Rows = std::vector<std::vector<Json>>;

Rows Sorted(Rows rows) {
  std::sort(rows.begin(), rows.end(),
            [](const auto& a, const auto& b) { return Json(a).dump() < Json(b).dump(); });
  return rows;
}

class TarnSql : public ::testing::Test {
 protected:
  // Three days of a synthetic endpoint, imported from JSON lines in blocks
  // of 100 KiB, so that the days hold many blocks.
  void SetUp() override {
    const int64_t end = NowMs() - kHourMs;
    Tarn::Tool::SyntheticEvents generator({kEvents, 7, end - 3 * 24 * kHourMs, end});
    std::string text;
    while (const google::protobuf::Message* row = generator.Next()) {
      std::string line = Tarn::Tool::RowJson::Write(*row);
      events_.push_back(Json::parse(line));
      text += line + "\n";
    }
    tarn::test::WriteWholeFile(dir_.File("events.jsonl"), text);
    ToolRun run = Run({"ingest", "--store", Store(), "--from", dir_.File("events.jsonl"),
                       "--block-size", "100K"});
    ASSERT_EQ(run.status, 0) << run.err;
  }

  std::string Store() const { return dir_.File("store"); }

  ToolRun Run(std::vector<std::string> args) {
    args.insert(args.begin(), "--quiet");
    return Tool::Run(args, dir_.path());
  }

  // The rows of `sql` in JSON form, each the values in column order.
  Rows Sql(const std::string& sql, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"sql", "--store", Store(), "--format", "json"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(sql);
    ToolRun run = Run(args);
    EXPECT_EQ(run.status, 0) << sql << "\n" << run.err;
    Rows rows;
    OrderedJson answer = OrderedJson::parse(run.out, nullptr, false);
    EXPECT_TRUE(answer.is_array()) << sql << "\n" << run.out;
    if (!answer.is_array()) return rows;
    for (const OrderedJson& object : answer) {
      std::vector<Json>& row = rows.emplace_back();
      for (const auto& [name, value] : object.items()) row.push_back(Json::parse(value.dump()));
    }
    return rows;
  }

  // The events of `table` for which `keep` holds, as rows of `columns`.
  template <typename Keep>
  Rows Expected(const std::string& table, const std::vector<std::string>& columns, Keep keep) {
    Rows rows;
    for (const Json& e : events_) {
      if (e["table"] != table || !keep(e)) continue;
      std::vector<Json>& row = rows.emplace_back();
      for (const std::string& c : columns) row.push_back(e.at(c));
    }
    return rows;
  }

  std::vector<const Json*> Of(const std::string& table) const {
    std::vector<const Json*> out;
    for (const Json& e : events_) {
      if (e["table"] == table) out.push_back(&e);
    }
    return out;
  }

  static constexpr uint64_t kEvents = 12000;
  tarn::test::TempDir dir_;
  std::vector<Json> events_;
};

TEST_F(TarnSql, AnOrOfPushedTermsLosesNoRow) {
  // SQLite answers an OR of cheap pushed terms term by term and drops a row
  // whose rowid an earlier term gave: rowids must name events, not count
  // rows of one scan.
  const std::vector<const Json*> reads = Of("edr_file_read");
  ASSERT_GT(reads.size(), 100u);
  const int64_t a = reads[reads.size() / 5]->at("date_time").get<int64_t>();
  const int64_t b = reads[reads.size() / 2]->at("date_time").get<int64_t>();
  const int64_t width = 2 * kHourMs;
  auto in = [&](int64_t t, int64_t from) { return t >= from && t <= from + width; };
  uint64_t expected = 0;
  for (const Json* e : reads) {
    const int64_t t = e->at("date_time").get<int64_t>();
    expected += in(t, a) || in(t, b);
  }
  const std::string sql = "SELECT count(*) FROM edr_file_read WHERE date_time BETWEEN " +
                          std::to_string(a) + " AND " + std::to_string(a + width) +
                          " OR date_time BETWEEN " + std::to_string(b) + " AND " +
                          std::to_string(b + width);
  // A join whose ON is an OR of two id terms.
  std::map<uint64_t, uint64_t> by_puid;
  for (const Json* e : Of("edr_process_create")) ++by_puid[e->at("puid").get<uint64_t>()];
  uint64_t joined = 0;
  for (const Json* e : Of("edr_process_create")) {
    const uint64_t puid = e->at("puid").get<uint64_t>();
    const uint64_t parent = e->at("parent_puid").get<uint64_t>();
    for (const auto& [key, count] : by_puid) joined += (key == puid || key == parent) ? count : 0;
  }
  const std::string join =
      "SELECT count(*) FROM edr_process_create c JOIN edr_process_create p "
      "ON p.puid = c.parent_puid OR p.puid = c.puid";
  for (const char* threads : {"1", "3"}) {
    SCOPED_TRACE(threads);
    EXPECT_EQ(Sql(sql, {"--threads", threads}), Rows{{Json(expected)}});
    EXPECT_EQ(Sql(join, {"--threads", threads}), Rows{{Json(joined)}});
  }
}

TEST_F(TarnSql, AStatementThatFailsHalfwayIsNoWholeAnswer) {
  // SQLite's abs() fails on the smallest integer: the statement fails at
  // the first row past the middle of the table, after writing the others.
  const std::vector<const Json*> creates = Of("edr_process_create");
  const size_t half = creates.size() / 2;
  const std::string sql =
      "SELECT pid, CASE WHEN date_time >= " +
      std::to_string(creates[half]->at("date_time").get<int64_t>()) +
      " THEN abs(-9223372036854775807 - 1) ELSE 0 END FROM edr_process_create";
  for (const char* format : {"json", "csv"}) {
    SCOPED_TRACE(format);
    ToolRun run = Run({"sql", "--store", Store(), "--threads", "1", "--format", format, sql});
    EXPECT_EQ(run.status, 1);
    const size_t at = run.err.find("the statement failed after ");
    ASSERT_NE(at, std::string::npos) << run.err;
    const size_t written = std::stoul(run.err.substr(at + 27));
    EXPECT_GT(written, 0u);
    EXPECT_LE(written, half);
    if (std::string(format) == "json") {
      EXPECT_TRUE(OrderedJson::parse(run.out, nullptr, false).is_discarded())
          << "a failed answer must not parse as a whole one";
    } else {
      EXPECT_EQ(Lines(run.out).size(), written + 1);  // the header, then the rows written
    }
  }
}

TEST_F(TarnSql, EachOperatorAndLikeAnswerWhatTheEventsHold) {
  const auto creates = Of("edr_process_create");
  ASSERT_GT(creates.size(), 200u);
  const Json& middle = *creates[creates.size() / 2];
  const int64_t pid = middle["pid"];
  const std::string path = middle["path"];
  const std::vector<std::string> columns = {"date_time", "pid", "path"};
  const std::map<std::string, std::function<bool(int)>> ops = {
      {"=", [](int c) { return c == 0; }},
      {"<", [](int c) { return c < 0; }},
      {"<=", [](int c) { return c <= 0; }},
      {">", [](int c) { return c > 0; }},
      {">=", [](int c) { return c >= 0; }}};
  // Named members rather than structured bindings: clang 14 (the sanitizer
  // build's compiler) cannot capture a binding in a lambda.
  for (const auto& entry : ops) {
    const std::string& op = entry.first;
    const std::function<bool(int)>& holds = entry.second;
    SCOPED_TRACE(op);
    auto order = [](auto a, auto b) { return a < b ? -1 : (b < a ? 1 : 0); };
    EXPECT_EQ(Sorted(Sql("SELECT date_time, pid, path FROM edr_process_create WHERE pid " + op +
                         " " + std::to_string(pid))),
              Sorted(Expected("edr_process_create", columns, [&](const Json& e) {
                return holds(order(e["pid"].get<int64_t>(), pid));
              })));
    EXPECT_EQ(Sorted(Sql("SELECT date_time, pid, path FROM edr_process_create WHERE path " + op +
                         " '" + path + "'")),
              Sorted(Expected("edr_process_create", columns, [&](const Json& e) {
                return holds(order(e["path"].get<std::string>(), path));
              })));
  }
  // A real bound: the whole numbers below it.
  EXPECT_EQ(Sorted(Sql("SELECT date_time, pid, path FROM edr_process_create WHERE pid < " +
                       std::to_string(pid) + ".5")),
            Sorted(Expected("edr_process_create", columns,
                            [&](const Json& e) { return e["pid"].get<int64_t>() <= pid; })));

  // LIKE, whatever the case of the letters, with "_" and "%".
  for (const std::string pattern :
       {"%-ENC%", "%\\appdata\\local\\temp\\________.exe", "c:\\windows\\system32\\%", "%.EXE"}) {
    SCOPED_TRACE(pattern);
    const Rows got =
        Sql("SELECT date_time, pid, path FROM edr_process_create WHERE command_line LIKE '" +
            pattern + "'");
    EXPECT_EQ(Sorted(got), Sorted(Expected("edr_process_create", columns, [&](const Json& e) {
                return Like(e["command_line"].get<std::string>(), pattern);
              })));
  }
  EXPECT_FALSE(Sql("SELECT 1 FROM edr_process_create WHERE command_line LIKE '%.EXE'").empty());

  // Addresses compare in their text form; 64-bit ids past 2^63 are exact.
  const auto connects = Of("edr_network_ssl_connect");
  ASSERT_FALSE(connects.empty());
  const std::string ip = (*connects.front())["remote_ip"];
  EXPECT_EQ(Sorted(Sql("SELECT date_time, puid FROM edr_network_ssl_connect WHERE remote_ip = '" +
                       ip + "' OR remote_ip LIKE '2001:db8:%'")),
            Sorted(Expected("edr_network_ssl_connect", {"date_time", "puid"}, [&](const Json& e) {
              const std::string r = e["remote_ip"];
              return r == ip || r.rfind("2001:db8:", 0) == 0;
            })));
  auto big = std::find_if(creates.begin(), creates.end(), [](const Json* e) {
    return (*e)["puid"].get<uint64_t>() > (uint64_t{1} << 63);
  });
  ASSERT_NE(big, creates.end());
  const int64_t bits = static_cast<int64_t>((**big)["puid"].get<uint64_t>());
  EXPECT_EQ(Sql("SELECT date_time, pid, path FROM edr_process_create WHERE puid = " +
                std::to_string(bits)),
            Expected("edr_process_create", columns,
                     [&](const Json& e) { return e["puid"] == (**big)["puid"]; }));
  EXPECT_EQ(Sorted(Sql("SELECT date_time, pid, path FROM edr_process_create WHERE puid >= 0")),
            Sorted(Expected("edr_process_create", columns, [&](const Json& e) {
              return e["puid"].get<uint64_t>() < (uint64_t{1} << 63);
            })));
}

TEST_F(TarnSql, TimeRangesHoldExactlyTheirMilliseconds) {
  const auto reads = Of("edr_file_read");
  ASSERT_GT(reads.size(), 300u);
  // Bounds inside a second, where the store, which keeps whole seconds,
  // must not cut off the events around them.
  const int64_t t = (*reads[reads.size() / 3])["date_time"];
  const int64_t u = (*reads[reads.size() / 3 + 40])["date_time"];
  const std::vector<std::pair<std::string, std::function<bool(int64_t)>>> ranges = {
      {"date_time > " + std::to_string(t), [&](int64_t d) { return d > t; }},
      {"date_time >= " + std::to_string(t), [&](int64_t d) { return d >= t; }},
      {"date_time < " + std::to_string(t), [&](int64_t d) { return d < t; }},
      {"date_time <= " + std::to_string(t), [&](int64_t d) { return d <= t; }},
      {"date_time = " + std::to_string(t), [&](int64_t d) { return d == t; }},
      {"date_time BETWEEN " + std::to_string(t - 1500) + " AND " + std::to_string(u + 700),
       [&](int64_t d) { return d >= t - 1500 && d <= u + 700; }},
      {"date_time > " + std::to_string(t) + " AND date_time < " + std::to_string(u) +
           " AND date_time > " + std::to_string(t + 1),
       [&](int64_t d) { return d > t + 1 && d < u; }},
      {"date_time > " + std::to_string(u) + " AND date_time < " + std::to_string(t),
       [](int64_t) { return false; }},
      {"date_time < 946684800000", [](int64_t) { return false; }},
  };
  for (const auto& range : ranges) {
    const std::string& where = range.first;
    const std::function<bool(int64_t)>& holds = range.second;
    SCOPED_TRACE(where);
    Rows got = Sql("SELECT date_time, path FROM edr_file_read WHERE " + where);
    EXPECT_EQ(Sorted(got), Sorted(Expected("edr_file_read", {"date_time", "path"}, [&](auto& e) {
                return holds(e["date_time"].template get<int64_t>());
              })));
  }
}

// The store logs each scan's end with the positions it visited (#135,
// c = positions): a one-hour query visits the events of that hour and no
// other, while the whole store's query visits every event.
TEST_F(TarnSql, AnHourOfSeveralDaysIsAllTheStoreReads) {
  // The busiest hour of the second day.
  const int64_t second_day = events_.front()["date_time"].get<int64_t>() / kHourMs + 24;
  std::map<int64_t, int> per_hour;
  for (const Json& e : events_) ++per_hour[e["date_time"].get<int64_t>() / kHourMs];
  int64_t hour = second_day;
  for (int64_t h = second_day; h < second_day + 24; ++h) {
    if (per_hour[h] > per_hour[hour]) hour = h;
  }
  hour *= kHourMs;
  auto scan = [&](const std::string& where) {
    ToolRun run = Run({"--verbose", "sql", "--store", Store(), "--stats", "--format", "csv",
                       "SELECT count(*) FROM edr_file_read" + where});
    EXPECT_EQ(run.status, 0) << run.err;
    uint64_t visited = 0;
    std::smatch m;
    const std::regex scan_end("#135 a=0 b=\\d+ c=(\\d+)");
    for (const std::string& line : Lines(run.err)) {
      if (std::regex_search(line, m, scan_end)) visited += std::stoull(m[1]);
    }
    const std::regex read("([\\d.]+) (B|KiB|MiB) read from the store's files");
    double bytes = 0;
    if (std::regex_search(run.err, m, read)) {
      bytes = std::stod(m[1]) * (m[2] == "B" ? 1 : m[2] == "KiB" ? 1024 : 1048576);
    }
    return std::tuple(Lines(run.out).at(1), visited, bytes);
  };
  const auto [count, visited, bytes] = scan(" WHERE date_time >= " + std::to_string(hour) +
                                            " AND date_time < " + std::to_string(hour + kHourMs));
  uint64_t in_hour = 0;
  uint64_t reads = 0;
  for (const Json& e : events_) {
    const int64_t t = e["date_time"];
    const bool inside = t >= hour && t < hour + kHourMs;
    in_hour += inside;
    reads += inside && e["table"] == "edr_file_read";
  }
  ASSERT_GT(reads, 5u);
  EXPECT_EQ(count, std::to_string(reads));
  EXPECT_EQ(visited, in_hour) << "the scan covers the hour, every table's events in it";

  const auto [all_count, all_visited, all_bytes] = scan("");
  EXPECT_EQ(all_visited, events_.size());
  EXPECT_GT(bytes, 0);
  EXPECT_LT(bytes * 5, all_bytes) << "an hour of three days reads a few of the blocks";
}

TEST_F(TarnSql, AnHourCostsAsMuchOnEveryCoreWhateverFormItsBoundsTake) {
  // What a statement asks of the store, from --stats: rows received and
  // bytes read from the store's files.
  auto cost = [&](const std::string& sql, const char* threads) {
    ToolRun run =
        Run({"sql", "--store", Store(), "--stats", "--threads", threads, "--format", "csv", sql});
    EXPECT_EQ(run.status, 0) << sql << "\n" << run.err;
    std::smatch m;
    uint64_t rows = 0;
    double bytes = 0;
    if (std::regex_search(run.err, m, std::regex("([\\d,]+) rows? \\("))) {
      std::string digits = m[1];
      std::erase(digits, ',');
      rows = std::stoull(digits);
    }
    if (std::regex_search(run.err, m, std::regex("([\\d.]+) (B|KiB|MiB) read from the store"))) {
      bytes = std::stod(m[1]) * (m[2] == "B" ? 1 : m[2] == "KiB" ? 1024 : 1048576);
    }
    return std::tuple(Lines(run.out), rows, bytes);
  };
  const int64_t middle = events_[events_.size() / 2]["date_time"].get<int64_t>();
  const int64_t hour = middle / kHourMs * kHourMs;
  char iso[32];
  const std::time_t at = static_cast<std::time_t>(hour / 1000);
  std::strftime(iso, sizeof(iso), "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&at));
  const std::string forms[] = {
      std::to_string(hour),
      std::string("ts('") + iso + "')",
      std::string("CAST(strftime('%s', '") + std::string(iso).substr(0, 19) +
          "') AS INTEGER) * 1000",
      "(SELECT " + std::to_string(hour) + " + 0 * count(*) FROM edr_enter_idle_mode)",
  };
  for (const std::string& from : forms) {
    SCOPED_TRACE(from);
    const std::string sql = "SELECT count(*), sum(pid) FROM edr_file_read WHERE date_time >= " +
                            from + " AND date_time < " + from + " + " + std::to_string(kHourMs);
    const auto [one_answer, one_received, one_bytes] = cost(sql, "1");
    const auto [all_answer, all_received, all_bytes] = cost(sql, "3");
    EXPECT_EQ(all_answer, one_answer);
    EXPECT_LE(all_bytes, one_bytes * 1.2 + 4096) << one_bytes;
    EXPECT_LE(all_received, one_received * 2 + 10) << one_received;
  }
}

TEST_F(TarnSql, JoinsCountsAndGroupsAgreeWithTheEvents) {
  const auto creates = Of("edr_process_create");
  EXPECT_EQ(Sql("SELECT count(*) FROM edr_process_create"), Rows{{creates.size()}});

  std::map<std::string, int64_t> by_name;
  for (const Json* e : creates) ++by_name[(*e)["process_name"]];
  Rows groups;
  for (const auto& [name, n] : by_name) groups.push_back({name, n});
  EXPECT_EQ(Sql("SELECT process_name, count(*) FROM edr_process_create GROUP BY process_name "
                "ORDER BY process_name"),
            groups);

  // Parents and children, joined on their ids.
  size_t children = 0;
  for (const Json* c : creates) {
    for (const Json* p : creates) children += (*p)["puid"] == (*c)["parent_puid"];
  }
  ASSERT_GT(children, 10u);
  EXPECT_EQ(Sql("SELECT count(*) FROM edr_process_create c JOIN edr_process_create p "
                "ON p.puid = c.parent_puid"),
            Rows{{children}});

  // A join on time alone: the inner scan is repeated with other bounds.
  size_t near = 0;
  const auto file_creates = Of("edr_file_create");
  for (const Json* d : Of("edr_file_delete")) {
    for (const Json* f : file_creates) {
      const int64_t gap = (*d)["date_time"].get<int64_t>() - (*f)["date_time"].get<int64_t>();
      near += gap > 0 && gap < 60'000;
    }
  }
  ASSERT_GT(near, 10u);
  EXPECT_EQ(Sql("SELECT count(*) FROM edr_file_delete d JOIN edr_file_create f "
                "ON f.date_time < d.date_time AND f.date_time > d.date_time - 60000"),
            Rows{{near}});

  // Files created, then run: two tables joined on a text and ordered in time.
  Rows runs;
  for (const Json* f : file_creates) {
    for (const Json* p : creates) {
      if ((*p)["path"] == (*f)["path"] && (*p)["date_time"] >= (*f)["date_time"]) {
        runs.push_back({(*f)["path"], (*f)["date_time"], (*p)["date_time"]});
      }
    }
  }
  ASSERT_FALSE(runs.empty());
  EXPECT_EQ(Sorted(Sql("SELECT f.path, f.date_time, p.date_time AS run FROM edr_file_create f "
                       "JOIN edr_process_create p ON p.path = f.path "
                       "AND p.date_time >= f.date_time")),
            Sorted(runs));
}

// Scans on several threads (time slices run ahead of SQLite, every scan of a
// statement asked for slice by slice) answer byte for byte what one thread
// asking each scan in turn answers, rows in the same order: whole tables,
// random time ranges with bounds inside seconds and on events, statements
// over several tables and all 135, joins that keep their inner scan, IN
// lists and LIMIT.
TEST_F(TarnSql, ScansOnSeveralThreadsAnswerAsOneThreadDoes) {
  const int64_t first = events_.front()["date_time"];
  const int64_t last = events_.back()["date_time"];
  std::mt19937_64 random(11);
  auto moment = [&] {
    // Half on an event's own millisecond, half anywhere in the span.
    if (random() % 2 == 0) return events_[random() % events_.size()]["date_time"].get<int64_t>();
    return first + static_cast<int64_t>(random() % static_cast<uint64_t>(last - first + 1));
  };
  const char* const kOps[] = {">", ">=", "<", "<=", "="};
  std::vector<std::string> statements = {
      "SELECT * FROM edr_file_read",
      "SELECT date_time, pid FROM edr_process_create WHERE pid IN (4, 8, 12, 16, 400, 1000)",
      "SELECT * FROM edr_network_generic_connect LIMIT 7",
      "SELECT c.date_time, c.pid, p.process_name FROM edr_process_create c "
      "JOIN edr_process_create p ON p.puid = c.parent_puid",
      "SELECT count(*), sum(a.pid + s.pid) FROM edr_amsi_buffer a, edr_shell_command s",
      "SELECT 'create', date_time, path FROM edr_file_create UNION ALL "
      "SELECT 'write', date_time, path FROM edr_file_write WHERE pid > 100 UNION ALL "
      "SELECT 'connect', date_time, remote_ip FROM edr_network_generic_connect",
  };
  std::string all;
  for (const auto& table : Tarn::Storage::OSQuery::AllTables()) {
    all += std::string(all.empty() ? "" : " UNION ALL ") + "SELECT '" + table.name +
           "', date_time FROM " + table.name;
  }
  statements.push_back(all);
  statements.push_back("SELECT count(*) FROM (" + all + ")");
  for (int i = 0; i < 24; ++i) {
    const int64_t a = moment();
    const int64_t b = moment();
    std::string where = "date_time " + std::string(kOps[random() % 4]) + " " + std::to_string(a);
    if (i % 3 != 0)
      where += " AND date_time " + std::string(kOps[random() % 5]) + " " + std::to_string(b);
    statements.push_back("SELECT date_time, pid, path FROM edr_file_write WHERE " + where);
    if (i % 4 == 0) {
      statements.push_back("SELECT date_time, 'r' FROM edr_registry_value_query WHERE " + where +
                           " UNION ALL SELECT date_time, 's' FROM edr_network_ssl_connect WHERE " +
                           where);
    }
  }
  size_t sliced = 0;
  for (const std::string& sql : statements) {
    SCOPED_TRACE(sql.substr(0, 200));
    ToolRun one = Run({"sql", "--store", Store(), "--threads", "1", "--format", "csv", sql});
    ToolRun many =
        Run({"sql", "--store", Store(), "--threads", "3", "--stats", "--format", "csv", sql});
    ASSERT_EQ(one.status, 0) << one.err;
    ASSERT_EQ(many.status, 0) << many.err;
    EXPECT_EQ(many.out, one.out);
    std::smatch queries;
    if (std::regex_search(many.err, queries, std::regex("tarn: ([0-9,]+) quer")) &&
        std::stoul(std::regex_replace(queries[1].str(), std::regex(","), "")) > 10) {
      ++sliced;
    }
  }
  // The store has blocks enough for the whole-store statements to be cut.
  EXPECT_GE(sliced, 4u);
}

// Statuses come back as what to do. A store of 300 events of 40 KB each
// makes 12 MB of answer: two pages at the smallest answer size.
TEST_F(TarnSql, StatusesBecomeAdviceAndPagesAreFollowed) {
  std::map<std::string, size_t> per_table;
  for (const Json& e : events_) ++per_table[e["table"]];
  const auto busiest = std::max_element(per_table.begin(), per_table.end(),
                                        [](auto& a, auto& b) { return a.second < b.second; });
  ASSERT_GT(busiest->second, 1000u);
  ToolRun rows = Run({"sql", "--store", Store(), "--threads", "1", "--row-limit", "1000",
                      "SELECT count(*) FROM " + busiest->first});
  EXPECT_EQ(rows.status, 1);
  EXPECT_NE(rows.err.find("more than 1,000 rows match in one answer (status 1"), std::string::npos)
      << rows.err;
  EXPECT_NE(rows.err.find("raise --row-limit"), std::string::npos) << rows.err;

  std::string lines;
  const int64_t start = NowMs() - kHourMs;
  for (int i = 0; i < 300; ++i) {
    lines += "{\"table\":\"edr_process_create\",\"date_time\":" + std::to_string(start + i * 1000) +
             ",\"pid\":" + std::to_string(i) + ",\"command_line\":\"" + std::string(40'000, 'x') +
             "\"}\n";
  }
  tarn::test::WriteWholeFile(dir_.File("big.jsonl"), lines);
  const std::string big = dir_.File("big");
  ASSERT_EQ(Run({"ingest", "--store", big, "--from", dir_.File("big.jsonl")}).status, 0);
  ToolRun paged = Run({"sql", "--store", big, "--threads", "1", "--size-limit", "10485760",
                       "--stats", "--format", "csv",
                       "SELECT count(*), sum(pid), min(length(command_line)) "
                       "FROM edr_process_create"});
  EXPECT_EQ(paged.status, 0) << paged.err;
  EXPECT_EQ(paged.out, "count(*),sum(pid),min(length(command_line))\n300,44850,40000\n");
  EXPECT_NE(paged.err.find("1 query, 2 answers, 300 rows"), std::string::npos) << paged.err;
  ToolRun pages = Run({"sql", "--store", big, "--threads", "1", "--size-limit", "10M",
                       "--aux-limit", "2", "SELECT max(command_line) FROM edr_process_create"});
  EXPECT_EQ(pages.status, 1);
  EXPECT_NE(pages.err.find("needs more pages than aux_limit allows (status 2"), std::string::npos)
      << pages.err;
  EXPECT_NE(pages.err.find("narrow the time range with date_time"), std::string::npos);

  // tarn query shows the token; sent back, it gives the rest.
  const std::string columns = "pid,command_line";
  ToolRun first = Run({"query", "--store", big, "--table", "edr_process_create", "--columns",
                       columns, "--size-limit", "10485760"});
  ASSERT_EQ(first.status, 0) << first.err;
  Json head = Json::parse(Lines(first.out).at(0));
  EXPECT_EQ(head["status"], 8);
  EXPECT_EQ(head["page"], 1);
  const size_t got = head["rows"];
  EXPECT_EQ(Lines(first.out).size(), got + 1);
  Json row = Json::parse(Lines(first.out).at(1));
  EXPECT_EQ(row.size(), 3u) << "the table and the two columns asked for";
  EXPECT_EQ(row["pid"], 0);
  EXPECT_EQ(row["command_line"], std::string(40'000, 'x'));
  ToolRun rest =
      Run({"query", "--store", big, "--table", "edr_process_create", "--columns", columns,
           "--size-limit", "10485760", "--token", head["token"].get<std::string>(), "--page", "1"});
  ASSERT_EQ(rest.status, 0) << rest.err;
  EXPECT_EQ(Json::parse(Lines(rest.out).at(0))["status"], 0);
  EXPECT_EQ(Json::parse(Lines(rest.out).at(1))["pid"], got) << "it resumes where the first ended";
  EXPECT_EQ(got + Lines(rest.out).size() - 1, 300u);

  struct Case {
    std::vector<std::string> args;
    std::string status;
    std::string says;
  } cases[] = {
      {{"--constraints",
        "{\"date_time\":{\"affinity\":\"bigint\",\"list\":[{\"op\":2,\"expr\":"
        "\"1700000000000\"},{\"op\":2,\"expr\":\"1700000009000\"}]}}"},
       "\"status\":4",
       "contradict each other"},
      {{"--token", "0", "--page", "1"}, "\"status\":9", "does not lie after the start"},
      {{"--constraints",
        "{\"pid\":{\"affinity\":\"bigint\",\"list\":[{\"op\":3,\"expr\":\"1\"}]}}"},
       "\"status\":5",
       "could not parse the constraints"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"query", "--store", Store(), "--table", "edr_process_create"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    ToolRun run = Run(args);
    EXPECT_EQ(run.status, 1) << c.status;
    EXPECT_NE(run.out.find(c.status), std::string::npos) << run.out;
    EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
  }
  ToolRun limit = Run({"sql", "--store", Store(), "--row-limit", "5", "SELECT 1"});
  EXPECT_EQ(limit.status, 2);  // a usage error
  EXPECT_NE(limit.err.find("--row-limit must lie between 1,000 and 49,999,999"), std::string::npos)
      << limit.err;
  ToolRun bad = Run({"sql", "--store", Store(), "SELECT no_such_column FROM edr_process_create"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.err.find("no such column: no_such_column"), std::string::npos) << bad.err;
}

// ---- In process ---------------------------------------------------------------

// Random terms on each kind of column, with values of every SQL type, held
// by real SQLite against rows of a plain table; whatever SQLite selects, the
// store's own constraint code (its parser, per-kind matchers and time range)
// must let through when given what PushConstraints made of the terms.
TEST(SqlPushdown, TheStoreAnswersASupersetOfWhatSqliteSelects) {
  const Tarn::Storage::OSQuery::TableInfo& table = *Tarn::Storage::OSQuery::FindTable(
      Tarn::Storage::OSQuery::TableIdByName("edr_process_create"));
  auto index_of = [&](std::string_view name) {
    for (uint16_t i = 0; i < table.column_count; ++i) {
      if (table.columns[i].name == name) return i;
    }
    return uint16_t{0xFFFF};
  };
  const uint16_t kColumns[] = {index_of("date_time"), index_of("pid"), index_of("puid"),
                               index_of("path")};
  std::mt19937_64 random(11);
  const int64_t base = 1'700'000'000'000;
  struct Row {
    uint64_t date_time, pid, puid;
    std::string path;
  };
  std::vector<Row> rows;
  const char* const kPaths[] = {"", "a", "A", "ab", "b%", "_x", "a_b", "\xc3\xa9t\xc3\xa9", "Z"};
  for (int i = 0; i < 60; ++i) {
    rows.push_back({static_cast<uint64_t>(base + static_cast<int64_t>(random() % 5000)),
                    i % 7 == 0 ? 4294967295u : random() % 20,
                    i % 5 == 0 ? ~uint64_t{0} - i : random() % 20,
                    kPaths[random() % std::size(kPaths)]});
  }
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  sqlite3_exec(db, "CREATE TABLE t(date_time INTEGER, pid INTEGER, puid INTEGER, path TEXT)",
               nullptr, nullptr, nullptr);
  for (const Row& r : rows) {
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO t VALUES(?,?,?,?)", -1, &insert, nullptr);
    sqlite3_bind_int64(insert, 1, static_cast<int64_t>(r.date_time));
    sqlite3_bind_int64(insert, 2, static_cast<int64_t>(r.pid));
    sqlite3_bind_int64(insert, 3, static_cast<int64_t>(r.puid));
    sqlite3_bind_text(insert, 4, r.path.data(), static_cast<int>(r.path.size()), SQLITE_TRANSIENT);
    ASSERT_EQ(sqlite3_step(insert), SQLITE_DONE);
    sqlite3_finalize(insert);
  }
  const char* const kNames[] = {"date_time", "pid", "puid", "path"};
  const std::pair<uint8_t, const char*> kOps[] = {{2, "="},  {4, ">"},   {8, "<="},
                                                  {16, "<"}, {32, ">="}, {65, "LIKE"}};
  auto value = [&](int column) -> SqlValue {
    const int64_t near = column == 0 ? base + static_cast<int64_t>(random() % 5200) - 100
                                     : static_cast<int64_t>(random() % 24) - 2;
    switch (random() % 6) {
      case 0:
        return SqlValue::Real(static_cast<double>(near) + (random() % 2 ? 0.5 : 0.0));
      case 1:
        return SqlValue::Text(kPaths[random() % std::size(kPaths)]);
      case 2:
        return SqlValue::Text(std::to_string(near));
      case 3:
        return SqlValue::Integer(random() % 2 ? -2 : -1);
      default:
        return SqlValue::Integer(near);
    }
  };
  uint64_t pushed_terms = 0;
  uint64_t rows_the_store_dropped = 0;
  for (int round = 0; round < 3000; ++round) {
    std::vector<SqlConstraint> terms;
    std::string where;
    const int count = 1 + static_cast<int>(random() % 3);
    for (int k = 0; k < count; ++k) {
      const int c = static_cast<int>(random() % 4);
      const auto& [op, sql_op] = kOps[random() % std::size(kOps)];
      terms.push_back({kColumns[c], op, value(c)});
      where +=
          std::string(k ? " AND " : "") + kNames[c] + " " + sql_op + " ?" + std::to_string(k + 1);
    }
    sqlite3_stmt* select = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, ("SELECT rowid FROM t WHERE " + where).c_str(), -1, &select,
                                 nullptr),
              SQLITE_OK);
    for (int k = 0; k < count; ++k) {
      const SqlValue& v = terms[k].value;
      if (v.type == SqlValue::Type::kInteger) sqlite3_bind_int64(select, k + 1, v.integer);
      if (v.type == SqlValue::Type::kReal) sqlite3_bind_double(select, k + 1, v.real);
      if (v.type == SqlValue::Type::kText) {
        sqlite3_bind_text(select, k + 1, v.text.c_str(), -1, SQLITE_TRANSIENT);
      }
    }
    std::vector<bool> selected(rows.size());
    while (sqlite3_step(select) == SQLITE_ROW) selected[sqlite3_column_int64(select, 0) - 1] = true;
    sqlite3_finalize(select);

    const Tarn::Tool::PushedConstraints pushed = Tarn::Tool::PushConstraints(table, terms);
    pushed_terms += pushed.pushed;
    SCOPED_TRACE(where + "  ->  " + pushed.json);
    Tarn::Storage::OSQuery::ConstraintsList list;
    ASSERT_TRUE(list.Parse(pushed.json)) << "the store takes every constraint it is sent";
    Tarn::Storage::OSQuery::TimeRange range;
    ASSERT_EQ(Tarn::Storage::OSQuery::NarrowTimeRange(list, range), 0);
    for (size_t i = 0; i < rows.size(); ++i) {
      const Row& r = rows[i];
      bool passes =
          !pushed.nothing && r.date_time / 1000 >= range.lower && r.date_time / 1000 <= range.upper;
      for (const auto& c : list.Items()) {
        if (c.column_name == "pid") passes &= Tarn::Storage::OSQuery::MatchNumberColumn(r.pid, c);
        if (c.column_name == "puid") passes &= Tarn::Storage::OSQuery::MatchNumberColumn(r.puid, c);
        if (c.column_name == "path") passes &= Tarn::Storage::OSQuery::MatchTextColumn(r.path, c);
      }
      if (selected[i]) {
        ASSERT_TRUE(passes) << "row " << i << " is lost";
      } else {
        rows_the_store_dropped += !passes;
      }
    }
  }
  sqlite3_close(db);
  // The terms did reach the store and did filter there.
  EXPECT_GT(pushed_terms, 2000u);
  EXPECT_GT(rows_the_store_dropped, 40'000u);
}

TEST(ResultPrinter, TableCsvAndJsonShowEveryKindOfCell) {
  using Tarn::Tool::ResultFormat;
  using Tarn::Tool::ResultPrinter;
  auto print = [](ResultFormat format, size_t width) {
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    ResultPrinter printer(format, out, width);
    printer.Begin({"n", "name", "n"});
    printer.Row({SqlValue::Integer(-5), SqlValue::Text("a,\"b\"\nc"), SqlValue::Real(2.5)});
    printer.Row(
        {SqlValue(), SqlValue::Text("\xc3\xa9t\xc3\xa9 long text"), SqlValue::Blob("\x01\xff")});
    SqlValue id = SqlValue::Integer(-59);
    id.as_unsigned = true;
    printer.Row({id, SqlValue::Text(""), SqlValue()});
    printer.End();
    printer.Begin({"x"});
    printer.End();
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
  };
  EXPECT_EQ(print(ResultFormat::kTable, 8),
            "n         name      n\n"
            "--------  --------  ----\n"
            "      -5  a,\"b\" c   2.5\n"
            "          \xc3\xa9t\xc3\xa9 lon\xe2\x80\xa6  01ff\n"
            "1844674\xe2\x80\xa6            \n"
            "(3 rows)\n"
            "\n"
            "x\n"
            "-\n"
            "(0 rows)\n");
  EXPECT_EQ(print(ResultFormat::kCsv, 0),
            "n,name,n\n-5,\"a,\"\"b\"\"\nc\",2.5\n,\xc3\xa9t\xc3\xa9 long text,01ff\n"
            "18446744073709551557,\"\",\n\nx\n");
  EXPECT_EQ(print(ResultFormat::kJson, 0),
            "[\n{\"n\":-5,\"name\":\"a,\\\"b\\\"\\nc\",\"n\":2.5},\n"
            "{\"n\":null,\"name\":\"\xc3\xa9t\xc3\xa9 long text\",\"n\":\"01ff\"},\n"
            "{\"n\":18446744073709551557,\"name\":\"\",\"n\":null}\n]\n[]\n");
}

}  // namespace
