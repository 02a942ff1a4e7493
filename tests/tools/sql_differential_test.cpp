// tarn sql against plain SQLite, statement by statement. The same rows are in
// a store (read through the tool's virtual tables) and in ordinary SQLite
// tables fed from the generator's rows (never read back from the store).
// Random statements of the kinds analysts write run on both: AND/OR/NOT
// trees of terms on every kind of column (times, 32- and 64-bit numbers,
// texts, addresses), IN, BETWEEN, LIKE with ESCAPE, IS NULL, joins on ids
// and on time windows, self-joins, subqueries, GROUP BY/HAVING, ORDER
// BY/LIMIT. Answers are compared as multisets, in order where the statement
// orders totally; integers by their 64 bits (a 64-bit id past 2^63 is held
// signed by SQLite and shown unsigned by the tool). Beside the second
// engine, partitions that need none: a statement's rows are its rows under
// p, NOT p and p IS NULL for a random term p together, and a count is the
// sum of the counts of disjoint time windows.
//
// Stores: one block, many blocks, and one written while the clock went back
// to an earlier day; each with one thread and with three. A divergence
// prints its seed and the smallest statement that still diverges.
// TARN_SQL_STATEMENTS=n runs n statements a case (CI: 120), TARN_SQL_SEED=s
// starts at seed s.

#include <google/protobuf/message.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdio.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "Tarn/Events/Base.h"
#include "manager/writer/StorageManager.h"
#include "osquery/RecordBuilder.h"
#include "osquery/Tables.h"
#include "support/isolated.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"
#include "tarn/cli/TextForms.h"
#include "tarn/sql/ResultPrinter.h"
#include "tarn/sql/SqlAddresses.h"
#include "tarn/sql/SqlConstraints.h"
#include "tarn/sql/SqlSession.h"
#include "tarn/sql/SqlTables.h"
#include "tarn/synthetic/Synthetic.h"
#include "tools/random_statements.h"

namespace Tarn::Tool {
namespace {

using Json = nlohmann::json;
using Storage::OSQuery::ColumnInfo;
using Storage::OSQuery::ColumnKind;
using Storage::OSQuery::TableInfo;
using Rows = std::vector<std::string>;  // each row as one normalized text

constexpr int64_t kDayMs = 86'400'000;
using test::Expr;
using test::GeneratedRow;
using test::kTables;
using test::Statement;
using test::StatementMaker;

uint32_t FromEnvironment(const char* name, uint32_t fallback) {
  const char* text = std::getenv(name);
  const long value = text != nullptr ? std::atol(text) : 0;
  return value > 0 ? static_cast<uint32_t>(value) : fallback;
}

// ---- The rows --------------------------------------------------------------

Json ValueOf(const google::protobuf::Message& row, const ColumnInfo& column) {
  const auto* field = row.GetDescriptor()->FindFieldByNumber(column.field);
  const auto* r = row.GetReflection();
  switch (column.kind) {
    case ColumnKind::kUInt32: return Json(static_cast<int64_t>(r->GetUInt32(row, field)));
    case ColumnKind::kDateTime:
    case ColumnKind::kUInt64: return Json(static_cast<int64_t>(r->GetUInt64(row, field)));
    default: return Json(r->GetString(row, field));
  }
}

enum class StoreKind { kOneBlock, kManyBlocks, kClockBack };

// The rows of three tables from a synthetic endpoint, in the order the
// store is to take them.
std::vector<GeneratedRow> Generate(StoreKind kind) {
  const int64_t end = (RealNowMs() / kDayMs - 2) * kDayMs;
  const bool one_block = kind == StoreKind::kOneBlock;
  SyntheticEvents generator({one_block ? 8'000u : 14'000u, 7,
                             one_block ? end - kDayMs / 4 : end - 3 * kDayMs, end});
  std::vector<GeneratedRow> rows;
  while (const google::protobuf::Message* row = generator.Next()) {
    const TableInfo* table = Storage::OSQuery::FindTable(
        Storage::OSQuery::TableIdByName(row->GetDescriptor()->name()));
    const auto named = [&](const char* t) { return table->name == std::string(t); };
    if (table == nullptr || std::none_of(std::begin(kTables), std::end(kTables), named)) {
      continue;
    }
    GeneratedRow out{table, {}, {}, 0};
    for (const ColumnInfo& column : table->Columns()) out.values.push_back(ValueOf(*row, column));
    out.time_ms = out.values[0].get<int64_t>();
    Events::DynamicEventBuilder builder;
    if (!Storage::OSQuery::BuildRecord(*row, builder, 0)) continue;
    out.record.assign(builder.Data(), builder.Data() + builder.Size());
    rows.push_back(std::move(out));
  }
  if (kind == StoreKind::kClockBack) {
    // The clock went back a day: the second day is written first, then the
    // first, then the third.
    const int64_t first_day = rows.front().time_ms / kDayMs;
    std::stable_sort(rows.begin(), rows.end(), [first_day](const auto& a, const auto& b) {
      auto rank = [first_day](int64_t ms) {
        const int64_t day = ms / kDayMs - first_day;
        return day == 1 ? 0 : day == 0 ? 1 : 2;
      };
      return rank(a.time_ms) < rank(b.time_ms);
    });
  }
  return rows;
}

// The store, written by the store's own writer at each row's time.
bool WriteStore(const std::string& directory, StoreKind kind,
                const std::vector<GeneratedRow>& rows) {
  Storage::Settings settings = Storage::Settings::default_();
  settings.block_buffer_size = kind == StoreKind::kOneBlock ? 10'485'760 : 102'400;
  tarn::test::FakeClock clock;
  Storage::StorageManager manager;
  if (!manager.Create(settings, &clock, 0, directory.c_str())) return false;
  for (const GeneratedRow& row : rows) {
    clock.Set(static_cast<uint64_t>(row.time_ms / 1000));
    Events::Objects::Base event(row.record.data(), row.record.size());
    if (!manager.AddEvent(event)) return false;
  }
  return manager.Stop();
}

// Plain SQLite tables of the same columns, declared as the tool declares.
sqlite3* ReferenceDatabase(const std::vector<GeneratedRow>& rows) {
  sqlite3* db = nullptr;
  std::string error;
  if (sqlite3_open(":memory:", &db) != SQLITE_OK || !RegisterAddressCollation(db, error)) {
    return nullptr;
  }
  for (const char* name : kTables) {
    const TableInfo& table = *Storage::OSQuery::FindTable(Storage::OSQuery::TableIdByName(name));
    std::string create = "CREATE TABLE " + std::string(name) + "(";
    std::string insert = "INSERT INTO " + std::string(name) + " VALUES(";
    for (const ColumnInfo& column : table.Columns()) {
      if (&column != table.columns) {
        create += ", ";
        insert += ", ";
      }
      create += std::string(column.name) + " " + DeclaredType(column.kind);
      if (column.kind == ColumnKind::kAddress) {
        create += std::string(" COLLATE ") + kAddressCollation;
      }
      insert += "?";
    }
    if (sqlite3_exec(db, (create + ")").c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      return nullptr;
    }
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, (insert + ")").c_str(), -1, &statement, nullptr);
    for (const GeneratedRow& row : rows) {
      if (row.table != &table) continue;
      for (size_t i = 0; i < row.values.size(); ++i) {
        const Json& v = row.values[i];
        const int at = static_cast<int>(i + 1);
        if (v.is_number()) {
          sqlite3_bind_int64(statement, at, v.get<int64_t>());
        } else {
          const std::string& text = v.get_ref<const std::string&>();
          sqlite3_bind_text(statement, at, text.data(), static_cast<int>(text.size()),
                            SQLITE_TRANSIENT);
        }
      }
      sqlite3_step(statement);
      sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
  }
  return db;
}

// ---- Running a statement on both -------------------------------------------

// A cell as text: integers by their 64 bits, reals to ten digits.
std::string Normal(const Json& v) {
  if (v.is_null()) return "null";
  if (v.is_number_integer()) {
    const uint64_t bits = v.is_number_unsigned() ? v.get<uint64_t>()
                                                  : static_cast<uint64_t>(v.get<int64_t>());
    return std::to_string(bits);
  }
  if (v.is_number_float()) {
    char text[40];
    std::snprintf(text, sizeof(text), "%.10g", v.get<double>());
    return text;
  }
  return v.dump();
}

struct Answer {
  bool ok = false;
  std::string error;
  Rows rows;
};

Answer OnStore(SqlSession& session, const std::string& sql) {
  Answer answer;
  char* buffer = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buffer, &size);
  {
    ResultPrinter printer(ResultFormat::kJson, out);
    answer.ok = session.Run(sql, printer, answer.error);
  }
  std::fclose(out);
  const std::string text(buffer, size);
  std::free(buffer);
  if (!answer.ok) return answer;
  const nlohmann::ordered_json parsed = nlohmann::ordered_json::parse(text, nullptr, false);
  if (!parsed.is_array()) {
    answer.ok = false;
    answer.error = "the output is not one JSON array";
    return answer;
  }
  for (const auto& object : parsed) {
    std::string row;
    for (const auto& [key, value] : object.items()) row += Normal(Json::parse(value.dump())) + "|";
    answer.rows.push_back(row);
  }
  return answer;
}

Answer OnReference(sqlite3* db, const std::string& sql) {
  Answer answer;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    answer.error = sqlite3_errmsg(db);
    return answer;
  }
  int rc;
  while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
    std::string row;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
      switch (sqlite3_column_type(statement, i)) {
        case SQLITE_NULL: row += "null|"; break;
        case SQLITE_INTEGER: row += Normal(Json(sqlite3_column_int64(statement, i))) + "|"; break;
        case SQLITE_FLOAT: row += Normal(Json(sqlite3_column_double(statement, i))) + "|"; break;
        default: {
          const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
          row += Json(std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement, i))))
                     .dump() +
                 "|";
        }
      }
    }
    answer.rows.push_back(row);
  }
  answer.ok = rc == SQLITE_DONE;
  if (!answer.ok) answer.error = sqlite3_errmsg(db);
  sqlite3_finalize(statement);
  return answer;
}

Rows Sorted(Rows rows) {
  std::sort(rows.begin(), rows.end());
  return rows;
}

// Rows the engines agreed on, over every statement compared.
uint64_t g_rows_compared = 0;

// Empty when both engines agree on `s`, else what differs.
std::string Difference(SqlSession& session, sqlite3* db, const Statement& s) {
  const Answer store = OnStore(session, s.Text(true));
  const Answer reference = OnReference(db, s.Text(false));
  g_rows_compared += reference.rows.size();
  if (!store.ok || !reference.ok) {
    if (store.ok != reference.ok) {
      return "the store " + (store.ok ? std::string("answers") : "fails: " + store.error) +
             "; SQLite " + (reference.ok ? std::string("answers") : "fails: " + reference.error);
    }
    return "";
  }
  const bool same = s.ordered ? store.rows == reference.rows
                              : Sorted(store.rows) == Sorted(reference.rows);
  if (same) return "";
  return "the store gives " + std::to_string(store.rows.size()) + " rows, SQLite " +
         std::to_string(reference.rows.size());
}

// Makes a diverging statement smaller while it still diverges: a subtree
// of either condition in its place, one child of a connective fewer.
Statement Smallest(SqlSession& session, sqlite3* db, Statement s) {
  std::function<bool(Expr&)> shrink = [&](Expr& e) -> bool {
    if (e.kind == Expr::kTerm) return false;
    const Expr whole = e;
    for (const Expr& child : whole.children) {
      e = child;
      if (!Difference(session, db, s).empty()) return true;
      e = whole;
    }
    if (e.children.size() > 2) {
      for (size_t i = 0; i < whole.children.size(); ++i) {
        e.children.erase(e.children.begin() + static_cast<std::ptrdiff_t>(i));
        if (!Difference(session, db, s).empty()) return true;
        e = whole;
      }
    }
    for (Expr& child : e.children) {
      if (shrink(child)) return true;
    }
    return false;
  };
  while (shrink(s.where) || shrink(s.extra)) {
  }
  return s;
}

// ---- The partitions, on the store alone -----------------------------------

// Rows under e are those under e AND p, e AND NOT p and e AND p IS NULL.
std::string PartitionDifference(SqlSession& session, StatementMaker& maker,
                                 const std::string& table) {
  Expr e = maker.Term(table, "");
  const Expr p = maker.Term(table, "");
  const std::string base = "SELECT * FROM " + table + " WHERE " + e.Text(true);
  const Answer all = OnStore(session, base);
  Rows parts;
  for (const std::string& part : {"(" + p.Text(true) + ")", "NOT (" + p.Text(true) + ")",
                                  "(" + p.Text(true) + ") IS NULL"}) {
    const Answer some = OnStore(session, base + " AND " + part);
    if (!some.ok) return "a part fails: " + some.error;
    parts.insert(parts.end(), some.rows.begin(), some.rows.end());
  }
  if (!all.ok) return "fails: " + all.error;
  if (Sorted(parts) != Sorted(all.rows)) {
    return base + " splits by " + p.Text(true) + " into " + std::to_string(parts.size()) +
           " rows, not " + std::to_string(all.rows.size());
  }
  return "";
}

// A count is the sum of the counts of disjoint windows that cover its time.
std::string WindowDifference(SqlSession& session, std::mt19937& random, const std::string& table,
                             int64_t first, int64_t last) {
  const Answer all = OnStore(session, "SELECT count(*) FROM " + table);
  int64_t sum = 0;
  int64_t from = first;
  while (from <= last) {
    const int64_t to = from + 1 + static_cast<int64_t>(random() % 7'200'000);
    const Answer window = OnStore(session, "SELECT count(*) FROM " + table +
                                               " WHERE date_time >= " + std::to_string(from) +
                                               " AND date_time < " + std::to_string(to));
    if (!window.ok || window.rows.size() != 1) return "a window fails";
    sum += std::stoll(window.rows[0]);
    from = to;
  }
  if (!all.ok || all.rows.size() != 1 || std::stoll(all.rows[0]) != sum) {
    return table + ": windows count " + std::to_string(sum) + ", the table " +
           (all.rows.empty() ? "?" : all.rows[0]);
  }
  return "";
}

// ---- The cases -------------------------------------------------------------

struct Case {
  StoreKind store;
  unsigned threads;
};

class SqlDifferential : public ::testing::TestWithParam<Case> {};

TEST_P(SqlDifferential, EveryStatementAnswersAsSQLiteDoes) {
  const Case c = GetParam();
  tarn::test::RunIsolated([c] {
    tarn::test::TempDir dir;
    const std::vector<GeneratedRow> rows = Generate(c.store);
    ASSERT_GT(rows.size(), 500u);
    ASSERT_TRUE(WriteStore(dir.File("store"), c.store, rows));
    sqlite3* db = ReferenceDatabase(rows);
    ASSERT_NE(db, nullptr);
    SqlSession session;
    HostOptions host;
    host.store = dir.File("store");
    std::string error;
    ASSERT_TRUE(session.Open(host, QueryLimits(), c.threads, error)) << error;

    const uint32_t statements = FromEnvironment("TARN_SQL_STATEMENTS", 120);
    const uint32_t seed = FromEnvironment("TARN_SQL_SEED", 1);
    uint32_t compared = 0, diverged = 0, partitions = 0;
    int64_t first = rows.front().time_ms, last = rows.front().time_ms;
    for (const GeneratedRow& row : rows) {
      first = std::min(first, row.time_ms);
      last = std::max(last, row.time_ms);
    }
    for (uint32_t n = 0; n < statements; ++n) {
      StatementMaker maker(seed * 100'003 + n, rows);
      const Statement s = maker.Make();
      ++compared;
      const std::string difference = Difference(session, db, s);
      if (!difference.empty()) {
        ++diverged;
        const Statement small = Smallest(session, db, s);
        ADD_FAILURE() << "seed " << seed * 100'003 + n << ": " << difference
                      << "\nsmallest statement that still diverges:\n  store:  "
                      << small.Text(true) << "\n  SQLite: " << small.Text(false);
        if (diverged >= 5) break;
      }
      if (n % 10 == 0) {
        ++partitions;
        const std::string table = kTables[maker.random()() % 3];
        std::string split = PartitionDifference(session, maker, table);
        if (split.empty()) split = WindowDifference(session, maker.random(), table, first, last);
        if (!split.empty()) ADD_FAILURE() << "seed " << seed * 100'003 + n << ": " << split;
      }
    }
    std::printf("sql differential (%s, %u thread%s): %u statements generated and compared "
                "(%llu rows), %u partition checks, %u diverged\n",
                c.store == StoreKind::kOneBlock   ? "one block"
                : c.store == StoreKind::kManyBlocks ? "many blocks"
                                                    : "clock went back",
                c.threads, c.threads == 1 ? "" : "s", compared,
                static_cast<unsigned long long>(g_rows_compared), partitions, diverged);
    ASSERT_TRUE(session.Close(error)) << error;
    sqlite3_close(db);
  });
}

INSTANTIATE_TEST_SUITE_P(
    Stores, SqlDifferential,
    ::testing::Values(Case{StoreKind::kOneBlock, 1}, Case{StoreKind::kOneBlock, 3},
                      Case{StoreKind::kManyBlocks, 1}, Case{StoreKind::kManyBlocks, 3},
                      Case{StoreKind::kClockBack, 1}, Case{StoreKind::kClockBack, 3}),
    [](const ::testing::TestParamInfo<Case>& each) {
      const char* store = each.param.store == StoreKind::kOneBlock     ? "OneBlock"
                          : each.param.store == StoreKind::kManyBlocks ? "ManyBlocks"
                                                                       : "ClockBack";
      return std::string(store) + (each.param.threads == 1 ? "OneThread" : "ThreeThreads");
    });

}  // namespace
}  // namespace Tarn::Tool
