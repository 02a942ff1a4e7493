// SQLite as a user would set it up for events (SqliteSchema.h), in WAL mode
// with synchronous=NORMAL (WAL's usual companion: no sync per commit), one
// transaction per 1,000 events and one prepared INSERT per table. Each
// record is first turned into its row's columns by the store's own
// converter; that time is counted apart (convert_seconds), since a program
// built on SQLite would hold the columns already. Ingest ends with a
// checkpoint that moves the log into the database file.

#include <google/protobuf/message.h>
#include <sqlite3.h>

#include <array>
#include <memory>
#include <string>

#include "common/Measure.h"
#include "peers/Contender.h"
#include "peers/Questions.h"
#include "peers/RecordFile.h"
#include "peers/RowsFromRecords.h"
#include "peers/SqliteSchema.h"

namespace Tarn::Bench {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using Storage::OSQuery::TableInfo;

constexpr uint32_t kEventsPerTransaction = 1000;

// Binds every column of `row`, in the table's column order.
void BindRow(sqlite3_stmt* insert, const TableInfo& table, const Message& row) {
  const auto* descriptor = row.GetDescriptor();
  const auto* reflection = row.GetReflection();
  for (uint16_t i = 0; i < table.column_count; ++i) {
    const FieldDescriptor* field = descriptor->FindFieldByNumber(table.columns[i].field);
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
      const std::string& text = reflection->GetStringReference(row, field, nullptr);
      sqlite3_bind_text(insert, i + 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    } else {
      sqlite3_bind_int64(insert, i + 1, static_cast<int64_t>(Questions::NumberField(row, field)));
    }
  }
}

// Reads every column of the current row, as a program would use it; the
// lengths go into `sink` so that nothing is skipped.
void ReadColumns(sqlite3_stmt* select, uint64_t& sink) {
  const int count = sqlite3_column_count(select);
  for (int i = 0; i < count; ++i) {
    if (sqlite3_column_type(select, i) == SQLITE_INTEGER) {
      sink += static_cast<uint64_t>(sqlite3_column_int64(select, i));
    } else {
      sqlite3_column_text(select, i);
      sink += static_cast<uint64_t>(sqlite3_column_bytes(select, i));
    }
  }
}

class SqliteContender final : public Contender {
 public:
  explicit SqliteContender(std::string directory)
      : directory_(std::move(directory)), path_(directory_ + "/events.sqlite") {}
  ~SqliteContender() override {
    inserts_ = {};
    sqlite3_close(db_);
  }

  bool Ingest(const CorpusFiles& corpus, IngestFigures& figures, std::string& error) override;
  uint64_t BytesOnDisk() override { return DirectoryBytes(directory_.c_str()); }
  bool Open(std::string& error) override;
  bool Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome, std::string& error) override;
  bool Scan(Outcome& outcome, std::string& error) override;
  bool Join(Outcome& outcome, std::string& error) override;

 private:
  bool Insert(const uint8_t* record, uint32_t size, RowsFromRecords& rows, IngestFigures& figures,
              std::string& error);
  sqlite3_stmt* InsertFor(const TableInfo& table, std::string& error);

  std::string directory_;
  std::string path_;
  sqlite3* db_ = nullptr;
  std::array<std::unique_ptr<Statement>, Storage::OSQuery::kMaxTableTypeId + 1> inserts_;
  uint64_t sink_ = 0;
};

bool SqliteContender::Open(std::string& error) {
  if (sqlite3_open(path_.c_str(), &db_) != SQLITE_OK) {
    error = "sqlite: cannot open " + path_;
    return false;
  }
  return Execute(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", error);
}

sqlite3_stmt* SqliteContender::InsertFor(const TableInfo& table, std::string& error) {
  std::unique_ptr<Statement>& insert = inserts_[table.type_id];
  if (insert == nullptr) {
    insert = std::make_unique<Statement>();
    if (!insert->Prepare(db_, InsertSql(table), error)) return nullptr;
  }
  return insert->get();
}

bool SqliteContender::Insert(const uint8_t* record, uint32_t size, RowsFromRecords& rows,
                             IngestFigures& figures, std::string& error) {
  const double start = Now();
  const Message* row = rows.Row(record, size);
  figures.convert_seconds += Now() - start;
  const TableInfo* table = Storage::OSQuery::FindTable(RecordType(record));
  sqlite3_stmt* insert = table != nullptr && row != nullptr ? InsertFor(*table, error) : nullptr;
  if (insert == nullptr) {
    if (error.empty())
      error = "an event of type " + std::to_string(RecordType(record)) + " has no table";
    return false;
  }
  BindRow(insert, *table, *row);
  const bool done = sqlite3_step(insert) == SQLITE_DONE;
  sqlite3_reset(insert);
  if (!done) error = std::string("sqlite: ") + sqlite3_errmsg(db_);
  return done;
}

bool SqliteContender::Ingest(const CorpusFiles& corpus, IngestFigures& figures,
                             std::string& error) {
  RecordReader records;
  if (!records.Open(corpus.records)) {
    error = "cannot open " + corpus.records;
    return false;
  }
  if (!Open(error) || !Execute(db_, SchemaSql(), error)) return false;
  RowsFromRecords rows("");
  const double start = Now();
  const uint8_t* record = nullptr;
  uint32_t size = 0;
  if (!Execute(db_, "BEGIN", error)) return false;
  while (records.Next(record, size)) {
    if (!Insert(record, size, rows, figures, error)) return false;
    if (++figures.events % kEventsPerTransaction == 0 && !Execute(db_, "COMMIT; BEGIN", error)) {
      return false;
    }
  }
  if (!Execute(db_, "COMMIT; PRAGMA wal_checkpoint(TRUNCATE);", error)) return false;
  figures.seconds = Now() - start;
  if (records.Damaged()) error = corpus.records + " ends inside a record";
  inserts_ = {};
  const bool closed = sqlite3_close(db_) == SQLITE_OK;
  db_ = nullptr;
  if (!closed && error.empty()) error = "sqlite: the database did not close";
  return error.empty();
}

bool SqliteContender::Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome, std::string& error) {
  const TableInfo* table =
      Storage::OSQuery::FindTable(Storage::OSQuery::TableIdByName(Questions::kHourTable));
  const int pid = table != nullptr ? ColumnIndex(*table, Questions::kHourCheckColumn) : -1;
  Statement select;
  if (pid < 0 || !select.Prepare(db_,
                                 "SELECT * FROM " + std::string(Questions::kHourTable) +
                                     " WHERE date_time >= ?1 AND date_time < ?2",
                                 error)) {
    return false;
  }
  sqlite3_bind_int64(select.get(), 1, from_ms);
  sqlite3_bind_int64(select.get(), 2, to_ms);
  while (sqlite3_step(select.get()) == SQLITE_ROW) {
    ReadColumns(select.get(), sink_);
    ++outcome.rows;
    outcome.check += static_cast<uint64_t>(sqlite3_column_int64(select.get(), pid));
  }
  return true;
}

bool SqliteContender::Scan(Outcome& outcome, std::string& error) {
  for (const TableInfo& table : Storage::OSQuery::AllTables()) {
    Statement select;
    if (!select.Prepare(db_, std::string("SELECT * FROM ") + table.name, error)) return false;
    while (sqlite3_step(select.get()) == SQLITE_ROW) {
      ReadColumns(select.get(), sink_);
      ++outcome.rows;
      outcome.check += static_cast<uint64_t>(sqlite3_column_int64(select.get(), 0));
    }
  }
  return true;
}

bool SqliteContender::Join(Outcome& outcome, std::string& error) {
  std::string connections;
  for (std::string_view table : Questions::kConnectionTables) {
    if (!connections.empty()) connections += " UNION ALL ";
    connections +=
        "SELECT " + std::string(Questions::kConnectionColumns) + " FROM " + std::string(table);
  }
  Statement join;
  if (!join.Prepare(db_,
                    "SELECT count(*), sum(c.remote_port), sum(length(p.path) + "
                    "length(c.remote_ip)) FROM (" +
                        connections + ") c JOIN " + std::string(Questions::kProcessTable) +
                        " p ON p.puid = c.puid",
                    error)) {
    return false;
  }
  if (sqlite3_step(join.get()) != SQLITE_ROW) {
    error = std::string("sqlite: ") + sqlite3_errmsg(db_);
    return false;
  }
  outcome.rows = static_cast<uint64_t>(sqlite3_column_int64(join.get(), 0));
  outcome.check = static_cast<uint64_t>(sqlite3_column_int64(join.get(), 1));
  sink_ += static_cast<uint64_t>(sqlite3_column_int64(join.get(), 2));
  return true;
}

}  // namespace

std::unique_ptr<Contender> MakeSqliteContender(const std::string& directory) {
  return std::make_unique<SqliteContender>(directory);
}

}  // namespace Tarn::Bench
