#include "tarn/sql/SqlSession.h"

#include <sched.h>
#include <sqlite3.h>

#include <algorithm>
#include <fstream>
#include <thread>
#include <vector>

#include "tarn/sql/ResultPrinter.h"
#include "tarn/sql/SqlAddresses.h"
#include "tarn/sql/SqlFunctions.h"
#include "tarn/sql/SqlLiterals.h"

namespace Tarn::Tool {
namespace {

// VM steps between two looks at the stop flag.
constexpr int kStopCheckSteps = 1000;

// A result column taken straight from a 64-bit id column.
bool IsUnsignedColumn(sqlite3_stmt* statement, int i) {
  const char* type = sqlite3_column_decltype(statement, i);
  return type != nullptr && sqlite3_stricmp(type, kUnsignedType) == 0;
}

SqlValue CellOf(sqlite3_stmt* statement, int i, bool as_unsigned) {
  switch (sqlite3_column_type(statement, i)) {
    case SQLITE_INTEGER: {
      SqlValue value = SqlValue::Integer(sqlite3_column_int64(statement, i));
      value.as_unsigned = as_unsigned;
      return value;
    }
    case SQLITE_FLOAT: return SqlValue::Real(sqlite3_column_double(statement, i));
    case SQLITE_TEXT: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
      return SqlValue::Text(
          std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement, i))));
    }
    case SQLITE_BLOB: {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, i));
      const size_t size = static_cast<size_t>(sqlite3_column_bytes(statement, i));
      return SqlValue::Blob(bytes == nullptr ? std::string() : std::string(bytes, size));
    }
    default: return SqlValue();
  }
}

// Steps one prepared statement to its end, its rows to `printer`.
bool RunStatement(sqlite3* db, sqlite3_stmt* statement, ResultPrinter& printer,
                  std::string& error) {
  const int columns = sqlite3_column_count(statement);
  std::vector<bool> as_unsigned;
  if (columns > 0) {
    std::vector<std::string> names;
    for (int i = 0; i < columns; ++i) {
      names.emplace_back(sqlite3_column_name(statement, i));
      as_unsigned.push_back(IsUnsignedColumn(statement, i));
    }
    printer.Begin(std::move(names));
  }
  int rc;
  while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
    std::vector<SqlValue> row;
    row.reserve(static_cast<size_t>(columns));
    for (int i = 0; i < columns; ++i) row.push_back(CellOf(statement, i, as_unsigned[i]));
    printer.Row(std::move(row));
  }
  if (rc != SQLITE_DONE) {
    error = sqlite3_errmsg(db);
    // Rows already written are no whole answer: say so where there are any.
    const size_t written = columns > 0 ? printer.Abandon() : 0;
    if (written > 0) {
      error += " (the statement failed after " + std::to_string(written) +
               (written == 1 ? " row was" : " rows were") + " written)";
    }
    return false;
  }
  if (columns > 0) printer.End();
  return true;
}

}  // namespace

// The cores this process may run on: a process confined to some of the
// machine's (taskset, a container's cpuset) gains nothing from more threads.
unsigned DefaultScanThreads() {
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof(allowed), &allowed) == 0) {
    return static_cast<unsigned>(std::max(1, CPU_COUNT(&allowed)));
  }
  return std::max(1u, std::thread::hardware_concurrency());
}

uint64_t ProcessBytesRead() {
  std::ifstream io("/proc/self/io");
  std::string name;
  uint64_t value = 0;
  while (io >> name >> value) {
    if (name == "rchar:") return value;
  }
  return 0;
}

SqlSession::~SqlSession() {
  std::string ignored;
  Close(ignored);
}

bool SqlSession::Open(const HostOptions& host, const QueryLimits& limits, unsigned threads,
                      std::string& error) {
  HostOptions options = host;
  options.limits.widest_by_default = true;  // opening to read evicts nothing
  if (!host_.Open(options, error)) return false;
  client_ = std::make_unique<QueryClient>(host_);
  if (!client_->ApplyLimits(limits, /*widest=*/true, error)) return false;
  if (sqlite3_open_v2(":memory:", &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    error = "SQLite could not open a database in memory";
    return false;
  }
  tables_ = std::make_unique<StoreTables>(*client_);
  // The store is open: its index file holds every block it will read.
  tables_->UseThreads(options.store, threads != 0 ? threads : DefaultScanThreads());
  if (!tables_->Register(db_, error) || !RegisterSqlFunctions(db_, error) ||
      !RegisterAddressCollation(db_, error)) {
    return false;
  }
  read_at_open_ = ProcessBytesRead();
  return true;
}

bool SqlSession::Run(std::string_view sql, ResultPrinter& printer, std::string& error) {
  if (db_ == nullptr) {
    error = "the store is not open";
    return false;
  }
  const std::string text = TimeLiterals(SignedIdLiterals(sql));
  const char* rest = text.c_str();
  while (*rest != '\0') {
    sqlite3_stmt* statement = nullptr;
    const char* tail = nullptr;
    tables_->ForgetPlans();
    if (sqlite3_prepare_v2(db_, rest, -1, &statement, &tail) != SQLITE_OK) {
      error = sqlite3_errmsg(db_);
      return false;
    }
    rest = tail;
    if (statement == nullptr) continue;  // only blanks or a comment
    tables_->BeginStatement();
    const bool ok = RunStatement(db_, statement, printer, error);
    sqlite3_finalize(statement);
    tables_->EndStatement();
    if (!ok) return false;
  }
  return true;
}

void SqlSession::StopWhen(const volatile std::sig_atomic_t* flag) {
  if (db_ == nullptr) return;
  sqlite3_progress_handler(
      db_, kStopCheckSteps,
      [](void* stop) { return *static_cast<const volatile std::sig_atomic_t*>(stop) != 0 ? 1 : 0; },
      const_cast<std::sig_atomic_t*>(flag));
}

std::set<uint64_t> SqlSession::UnreadableBlocks() const {
  return client_ != nullptr ? client_->UnreadableBlocks() : std::set<uint64_t>();
}

SqlStats SqlSession::Stats() const {
  SqlStats stats;
  if (client_ != nullptr) stats.queries = client_->stats();
  if (tables_ != nullptr) stats.cache = tables_->cache_stats();
  stats.bytes_read = ProcessBytesRead() - read_at_open_;
  return stats;
}

bool SqlSession::Close(std::string& error) {
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
  tables_.reset();
  client_.reset();
  return host_.Close(error);
}

}  // namespace Tarn::Tool
