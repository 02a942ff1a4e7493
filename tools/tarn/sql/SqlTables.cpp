#include "tarn/sql/SqlTables.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "osquery/Tables.h"
#include "tarn/host/QueryClient.h"
#include "tarn/sql/RowFeed.h"
#include "tarn/sql/ScanCache.h"
#include "tarn/sql/ScanPlan.h"
#include "tarn/sql/SqlAddresses.h"
#include "tarn/sql/SqlConstraints.h"
#include "tarn/sql/SlicedScans.h"

namespace Tarn::Tool {
namespace {

using google::protobuf::FieldDescriptor;
using Storage::OSQuery::ColumnInfo;
using Storage::OSQuery::ColumnKind;
using Storage::OSQuery::TableInfo;

// ---- The table and its cursor ---------------------------------------------

struct TableAux {
  const TableInfo* table;
  std::shared_ptr<ScanSession> session;
};

struct StoreTable : sqlite3_vtab {
  const TableInfo* table = nullptr;
  std::shared_ptr<ScanSession> session;
  std::vector<const FieldDescriptor*> fields;  // by column

  void SetError(const std::string& message) {
    sqlite3_free(zErrMsg);
    zErrMsg = sqlite3_mprintf("%s", message.c_str());
  }
};

struct Cursor : sqlite3_vtab_cursor {
  StoreTable& Table() const { return *static_cast<StoreTable*>(pVtab); }

  RowReader reader;
  std::unique_ptr<RowFeed> feed;  // where the rows come from
  FedRow current;                 // the row the cursor is on
  bool parsed = false;            // `reader` holds `current`
  bool eof = true;

  // What the last filter was, to see a scan repeated with other values.
  std::string last_plan;
  std::vector<SqlValue> last_values;
};

std::string Declaration(const TableInfo& table) {
  std::string sql = "CREATE TABLE x(";
  for (const ColumnInfo& column : table.Columns()) {
    if (&column != table.columns) sql += ", ";
    sql += '"' + std::string(column.name) + "\" ";
    sql += DeclaredType(column.kind);
    if (column.kind == ColumnKind::kAddress) sql += std::string(" COLLATE ") + kAddressCollation;
  }
  return sql + ")";
}

// The fields of the table's message, by column, checked against the kinds.
bool FindFields(const TableInfo& table, std::vector<const FieldDescriptor*>& fields) {
  RowReader reader;
  if (!reader.Open(table.name)) return false;
  const google::protobuf::Descriptor& descriptor = *reader.row().GetDescriptor();
  for (const ColumnInfo& column : table.Columns()) {
    const FieldDescriptor* field = descriptor.FindFieldByNumber(column.field);
    if (field == nullptr) return false;
    FieldDescriptor::CppType want = FieldDescriptor::CPPTYPE_STRING;
    if (IsNumericKind(column.kind)) {
      want = column.kind == ColumnKind::kUInt32 ? FieldDescriptor::CPPTYPE_UINT32
                                                : FieldDescriptor::CPPTYPE_UINT64;
    }
    if (field->cpp_type() != want || field->is_repeated()) return false;
    fields.push_back(field);
  }
  return true;
}

int Connect(sqlite3* db, void* aux, int, const char* const*, sqlite3_vtab** out, char** error) {
  const auto& context = *static_cast<const TableAux*>(aux);
  auto table = std::make_unique<StoreTable>();
  *static_cast<sqlite3_vtab*>(table.get()) = {};
  table->table = context.table;
  table->session = context.session;
  if (!FindFields(*context.table, table->fields)) {
    *error = sqlite3_mprintf("the generated row class of %s does not match its columns",
                             context.table->name);
    return SQLITE_ERROR;
  }
  const int rc = sqlite3_declare_vtab(db, Declaration(*context.table).c_str());
  if (rc != SQLITE_OK) return rc;
  *out = table.release();
  return SQLITE_OK;
}

int Disconnect(sqlite3_vtab* vtab) {
  StoreTable* table = static_cast<StoreTable*>(vtab);
  sqlite3_free(table->zErrMsg);
  delete table;
  return SQLITE_OK;
}

// ---- Planning ----------------------------------------------------------------

// Tells the session what a statement being prepared will ask of the table:
// the scan's columns and the terms whose values are known now. Each plan
// the planner weighs names the same ones.
void RecordPlannedScan(StoreTable& vtab, uint64_t used, std::vector<SqlConstraint> known) {
  PlannedScan scan;
  scan.table = vtab.table;
  scan.columns = ColumnsText(*vtab.table, used);
  scan.key = ScanKey(*vtab.table, scan.columns, PushConstraints(*vtab.table, known).json);
  scan.terms = std::move(known);
  std::vector<PlannedScan>& planned = vtab.session->planned;
  const bool seen = std::any_of(planned.begin(), planned.end(),
                                [&scan](const PlannedScan& p) { return p.key == scan.key; });
  if (!seen) planned.push_back(std::move(scan));
}

int BestIndex(sqlite3_vtab* vtab, sqlite3_index_info* info) {
  StoreTable& table = *static_cast<StoreTable*>(vtab);
  std::vector<SqlConstraint> known;
  const ScanPlan plan = PlanScan(*table.table, info, known);
  Estimate(plan, info);
  // A time bound known only as the statement runs (a subquery, strftime)
  // leaves the scan's time unknown now: run ahead, it would read the whole
  // table. Such a scan is read when it is asked for, as on one thread.
  const bool time_unknown = std::any_of(plan.terms.begin(), plan.terms.end(),
                                        [](const PlanTerm& t) { return t.column == 0 && !t.constant; });
  if (!time_unknown) RecordPlannedScan(table, plan.used, std::move(known));
  info->idxStr = sqlite3_mprintf("%s", plan.Encode().c_str());
  info->needToFreeIdxStr = 1;
  return info->idxStr != nullptr ? SQLITE_OK : SQLITE_NOMEM;
}

bool SameValue(const SqlValue& a, const SqlValue& b) {
  return a.type == b.type && a.integer == b.integer &&
         (a.real == b.real || (a.real != a.real && b.real != b.real)) && a.text == b.text;
}

// ---- Scanning ----------------------------------------------------------------

int Open(sqlite3_vtab* vtab, sqlite3_vtab_cursor** out) {
  auto cursor = std::make_unique<Cursor>();
  if (!cursor->reader.Open(static_cast<StoreTable*>(vtab)->table->name)) return SQLITE_ERROR;
  *out = cursor.release();
  return SQLITE_OK;
}

int Close(sqlite3_vtab_cursor* cursor) {
  delete static_cast<Cursor*>(cursor);
  return SQLITE_OK;
}

// Every page of a scan, kept; null with the table's message set on a
// failure, or null with `fits` false when the rows pass the budget.
std::shared_ptr<KeptScan> KeepScan(StoreTable& table, QueryRequest request, bool& fits) {
  ScanSession& session = *table.session;
  request.with_positions = true;
  auto scan = std::make_shared<KeptScan>();
  uint64_t budget = ScanSession::kBudget - std::min(ScanSession::kBudget, session.stats.kept_bytes);
  fits = true;
  for (;;) {
    QueryAnswer answer;
    std::string error;
    if (!session.client.AskAround(request, answer, error)) {
      table.SetError(error);
      return nullptr;
    }
    if (!answer.HasRows()) {
      table.SetError(table.table->name + std::string(": ") + session.client.Explain(answer));
      return nullptr;
    }
    const bool more = answer.status == QueryAnswer::kPartial;
    request.token = answer.next_token;
    request.page = answer.next_page;
    scan->Add(std::move(answer));
    if (scan->Bytes() > budget) {
      fits = false;
      return nullptr;
    }
    if (!more) return scan;
  }
}

int Next(sqlite3_vtab_cursor* base) {
  Cursor& c = *static_cast<Cursor*>(base);
  c.parsed = false;
  std::string error;
  if (c.feed != nullptr && c.feed->Next(c.current, error)) return SQLITE_OK;
  c.eof = true;
  if (error.empty()) return SQLITE_OK;
  c.Table().SetError(error);
  return SQLITE_ERROR;
}

// Serves a scan from kept rows: those its varying equal terms look up, and
// of them those in its varying date_time range, when they can be told.
void ServeKept(Cursor& c, std::shared_ptr<KeptScan> scan, const ScanPlan& plan,
               const std::vector<SqlValue>& values, const std::vector<bool>& fixed) {
  const TableInfo& table = *c.Table().table;
  bool picked = false;
  const uint32_t* pick = nullptr;
  const uint32_t* pick_end = nullptr;
  size_t row = 0;
  size_t row_end = scan->RowCount();
  std::vector<uint16_t> columns;
  std::string key;
  std::vector<SqlConstraint> times;
  for (size_t i = 0; i < plan.terms.size(); ++i) {
    const PlanTerm& t = plan.terms[i];
    if (fixed[i]) continue;
    if (t.column == 0) times.push_back({t.column, t.op, values[i]});
    if (t.op != kSqlEquals) continue;
    std::string part;
    bool never = false;
    if (!ValueKey(values[i], table.columns[t.column].kind, part, never)) continue;
    if (never) {
      c.feed = KeptRows(std::move(scan), false, nullptr, nullptr, 0, 0);
      return;
    }
    columns.push_back(t.column);
    AppendKeyPart(key, part);
  }
  if (!columns.empty()) {
    const KeptScan::Picks& picks = scan->Lookup(columns, key, table, c.reader);
    picked = true;
    pick = picks.data();
    pick_end = picks.data() + picks.size();
  }
  int64_t lower = 0;
  int64_t upper = 0;
  size_t first = 0;
  size_t last = 0;
  if (DateTimeSpan(table, times, lower, upper) &&
      scan->TimeRows(lower, upper, table, c.reader, first, last)) {
    if (picked) {
      pick = std::lower_bound(pick, pick_end, static_cast<uint32_t>(first));
      pick_end = std::lower_bound(pick, pick_end, static_cast<uint32_t>(last));
    } else {
      row = first;
      row_end = std::max(first, last);
    }
  }
  c.feed = KeptRows(std::move(scan), picked, pick, pick_end, row, row_end);
}

int Filter(sqlite3_vtab_cursor* cursor, int, const char* plan_text, int argc,
           sqlite3_value** argv) {
  Cursor& c = *static_cast<Cursor*>(cursor);
  StoreTable& table = c.Table();
  ScanSession& session = *table.session;
  ScanPlan plan;
  if (!plan.Decode(plan_text) || static_cast<int>(plan.terms.size()) != argc) {
    table.SetError("the scan's plan does not read back");
    return SQLITE_ERROR;
  }
  std::vector<SqlValue> values;
  for (int i = 0; i < argc; ++i) values.push_back(ValueOf(argv[i]));

  // A term stays the same when SQLite knew its value beforehand, or, in a
  // scan repeated under one plan, when it kept its value and is no equal
  // term (equal terms are the ones lookups serve). An equal term whose value
  // SQLite did not know is a join's: the scan is one of many to come.
  const bool repeated = c.last_plan == plan_text && c.last_values.size() == values.size();
  bool joined = false;
  std::vector<bool> fixed(values.size());
  std::vector<SqlConstraint> all;
  std::vector<SqlConstraint> stable;
  for (size_t i = 0; i < values.size(); ++i) {
    const PlanTerm& t = plan.terms[i];
    fixed[i] = t.constant ||
               (repeated && t.op != kSqlEquals && SameValue(values[i], c.last_values[i]));
    all.push_back({t.column, t.op, values[i]});
    if (fixed[i]) stable.push_back(all.back());
    joined |= t.op == kSqlEquals && !t.constant;
  }
  c.last_plan = plan_text;
  c.last_values = values;

  if (std::string error; !CheckTimeTerms(*table.table, all, error)) {
    table.SetError(error);
    return SQLITE_ERROR;
  }
  c.feed.reset();
  c.eof = false;
  const PushedConstraints pushed = PushConstraints(*table.table, all);
  if (pushed.nothing) {
    c.eof = true;
    return SQLITE_OK;
  }
  const std::string columns = ColumnsText(*table.table, plan.used);
  const PushedConstraints base = PushConstraints(*table.table, stable);
  const std::string key = ScanKey(*table.table, columns, base.json);
  if (auto found = session.kept.find(key); found != session.kept.end()) {
    ++session.stats.reuses;
    ServeKept(c, found->second, plan, values, fixed);
    return Next(&c);
  }
  const int sliced = session.sliced != nullptr ? session.sliced->Find(key) : -1;
  if (sliced >= 0 && stable.size() == all.size() && !repeated) {
    // The statement's workers have this scan: read it slice after slice.
    c.feed = SlicedRows(session.client, session.sliced, static_cast<size_t>(sliced));
    return Next(&c);
  }
  if ((repeated || joined) && session.too_big.count(key) == 0) {
    // Every row of the stable terms, kept: the statement's workers' slices
    // when they have them all, else one query of every page.
    std::shared_ptr<KeptScan> scan;
    bool fits = true;
    if (sliced >= 0) {
      std::string error;
      scan = session.sliced->Whole(sliced, error);
      if (!error.empty()) {
        table.SetError(table.table->name + std::string(": ") + error);
        return SQLITE_ERROR;
      }
      // Kept within the same budget as a scan kept page by page.
      if (scan != nullptr && session.stats.kept_bytes + scan->Bytes() > ScanSession::kBudget) {
        scan.reset();
        fits = false;
      }
    }
    if (scan == nullptr && fits) {
      QueryRequest request;
      request.table = table.table->name;
      request.columns = columns;
      request.constraints = base.json;
      scan = KeepScan(table, request, fits);
      if (scan == nullptr && fits) return SQLITE_ERROR;
    }
    if (scan != nullptr) {
      ++session.stats.kept_scans;
      session.stats.kept_bytes += scan->Bytes();
      session.kept.emplace(key, scan);
      ServeKept(c, std::move(scan), plan, values, fixed);
      return Next(&c);
    }
    session.too_big.insert(key);  // streamed every time from now on
  }
  QueryRequest request;
  request.table = table.table->name;
  request.columns = columns;
  request.constraints = pushed.json;
  c.feed = StreamedRows(session.client, std::move(request));
  return Next(&c);
}

int Eof(sqlite3_vtab_cursor* base) { return static_cast<Cursor*>(base)->eof ? 1 : 0; }

int Column(sqlite3_vtab_cursor* base, sqlite3_context* context, int i) {
  Cursor& c = *static_cast<Cursor*>(base);
  StoreTable& table = c.Table();
  if (i < 0 || i >= table.table->column_count) return SQLITE_RANGE;
  if (!c.parsed) {
    if (!c.reader.Parse(c.current.bytes)) {
      sqlite3_result_error(context, "a row of the store's answer does not parse", -1);
      return SQLITE_ERROR;
    }
    c.parsed = true;
  }
  const google::protobuf::Message& row = c.reader.row();
  const google::protobuf::Reflection& r = *row.GetReflection();
  const FieldDescriptor* field = table.fields[static_cast<size_t>(i)];
  switch (table.table->columns[i].kind) {
    case ColumnKind::kUInt32:
      sqlite3_result_int64(context, r.GetUInt32(row, field));
      break;
    case ColumnKind::kDateTime:
    case ColumnKind::kUInt64:
      // SQLite's integers are signed 64-bit: a number past 2^63 is held as
      // the negative number of the same bits, so that ids stay exact and
      // equal ids join (results show them unsigned again: DeclaredType).
      sqlite3_result_int64(context, static_cast<sqlite3_int64>(r.GetUInt64(row, field)));
      break;
    default: {
      std::string scratch;
      const std::string& text = r.GetStringReference(row, field, &scratch);
      sqlite3_result_text(context, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
      break;
    }
  }
  return SQLITE_OK;
}

// The event's store position: the same event has the same rowid in every
// scan of a statement, as SQLite needs when it reads an OR term by term.
int Rowid(sqlite3_vtab_cursor* base, sqlite3_int64* rowid) {
  *rowid = static_cast<sqlite3_int64>(static_cast<Cursor*>(base)->current.position);
  return SQLITE_OK;
}

// No xCreate: each table is eponymous only, there under its own name in
// every database without a CREATE VIRTUAL TABLE.
sqlite3_module MakeModule() {
  sqlite3_module m = {};
  m.iVersion = 1;
  m.xCreate = nullptr;
  m.xConnect = Connect;
  m.xBestIndex = BestIndex;
  m.xDisconnect = Disconnect;
  m.xDestroy = Disconnect;
  m.xOpen = Open;
  m.xClose = Close;
  m.xFilter = Filter;
  m.xNext = Next;
  m.xEof = Eof;
  m.xColumn = Column;
  m.xRowid = Rowid;
  return m;
}

const sqlite3_module kModule = MakeModule();

}  // namespace

const char* DeclaredType(ColumnKind kind) {
  if (kind == ColumnKind::kUInt64) return kUnsignedType;
  return IsNumericKind(kind) ? "INTEGER" : "TEXT";
}

StoreTables::StoreTables(QueryClient& client) : session_(std::make_shared<ScanSession>(client)) {}

StoreTables::~StoreTables() = default;

bool StoreTables::Register(sqlite3* db, std::string& error) {
  for (const TableInfo& table : Storage::OSQuery::AllTables()) {
    auto* aux = new TableAux{&table, session_};
    const int rc = sqlite3_create_module_v2(db, table.name, &kModule, aux,
                                            [](void* p) { delete static_cast<TableAux*>(p); });
    if (rc != SQLITE_OK) {
      error = std::string("SQLite refused the table ") + table.name + ": " + sqlite3_errstr(rc);
      return false;
    }
  }
  return true;
}

ScanCacheStats StoreTables::cache_stats() const { return session_->stats; }

void StoreTables::UseThreads(const std::string& store, unsigned threads) {
  session_->threads = threads;
  if (threads > 1) session_->slices.Load(store);
}

void StoreTables::ForgetPlans() { session_->planned.clear(); }

void StoreTables::BeginStatement() {
  ScanSession& session = *session_;
  session.sliced = SlicedScans::Start(session.client, session.slices, std::move(session.planned),
                                      session.threads);
  session.planned.clear();
}

void StoreTables::EndStatement() { session_->sliced.reset(); }

}  // namespace Tarn::Tool
