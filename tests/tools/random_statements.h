#pragma once

// Random statements of the kinds analysts write, over three tables of
// generated rows, each in two texts: as a user of the tool writes it and as
// plain SQLite reads it. A statement keeps its WHERE as a tree, so that one
// that diverges can be made smaller.

#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "osquery/Tables.h"

namespace Tarn::Tool::test {

using Json = nlohmann::json;
using Storage::OSQuery::ColumnInfo;
using Storage::OSQuery::ColumnKind;
using Storage::OSQuery::TableInfo;

inline const char* const kTables[] = {"edr_process_create", "edr_file_read",
                                      "edr_network_generic_connect"};

// One generated row: its table, its columns as SQLite holds them, and its
// record for the store.
struct GeneratedRow {
  const TableInfo* table;
  std::vector<Json> values;  // by column: integers (64-bit ids signed), or texts
  std::vector<uint8_t> record;
  int64_t time_ms;
};

// A statement's WHERE as a tree, so that a diverging statement can be made
// smaller: a term, or a connective over its children.
struct Expr {
  enum Kind { kTerm, kAnd, kOr, kNot } kind = kTerm;
  std::string store;      // a term as the tool's user writes it
  std::string reference;  // and as plain SQLite reads it
  std::vector<Expr> children;

  std::string Text(bool for_store) const {
    switch (kind) {
      case kTerm: return for_store ? store : reference;
      case kNot: return "NOT (" + children[0].Text(for_store) + ")";
      default: {
        std::string text = "(" + children[0].Text(for_store);
        for (size_t i = 1; i < children.size(); ++i) {
          text += (kind == kAnd ? " AND " : " OR ") + children[i].Text(for_store);
        }
        return text + ")";
      }
    }
  }
};

// A statement: its text around the WHERE of its first table (which a
// diverging statement is made smaller by) and one more condition, both ways.
struct Statement {
  std::string shape;  // with "%W" where the WHERE goes and "%X" the other
  Expr where;
  Expr extra;
  bool ordered = false;  // compared in order

  std::string Text(bool for_store) const {
    std::string text = shape;
    for (const auto& [mark, expr] : {std::pair{"%W", &where}, std::pair{"%X", &extra}}) {
      const size_t at = text.find(mark);
      if (at != std::string::npos) text.replace(at, 2, expr->Text(for_store));
    }
    return text;
  }
};

class StatementMaker {
 public:
  StatementMaker(uint32_t seed, const std::vector<GeneratedRow>& rows) : random_(seed) {
    for (const GeneratedRow& row : rows) by_table_[row.table->name].push_back(&row);
  }

  Statement Make() {
    const std::string table = kTables[random_() % 3];
    Statement s;
    s.where = Tree(table, "", 0);
    const std::string columns = Columns(table, "");
    switch (random_() % 9) {
      case 0:
      case 1:
        s.shape = "SELECT " + columns + " FROM " + table + " WHERE %W";
        break;
      case 2:
        s.shape = "SELECT count(*), sum(pid), min(date_time), max(date_time) FROM " + table +
                  " WHERE %W";
        break;
      case 3: {
        const std::string by = Column(table, false);
        s.shape = "SELECT " + by + ", count(*) FROM " + table + " WHERE %W GROUP BY " + by +
                  " HAVING count(*) > " + std::to_string(random_() % 3);
        break;
      }
      case 4:
        s.shape = "SELECT " + columns + " FROM " + table + " WHERE %W ORDER BY " + columns +
                  " LIMIT " + std::to_string(1 + random_() % 30);
        s.ordered = true;
        break;
      case 5: {
        // A join on ids, an ON that may be an OR.
        const std::string other = kTables[random_() % 3];
        const std::string on = random_() % 2 == 0 ? "b.puid = a.puid"
                                                  : "(b.puid = a.puid OR b.pid = a.pid)";
        s.where = Tree(table, "a.", 0);
        s.extra = Tree(other, "b.", 1);
        s.shape = "SELECT a.date_time AS t1, a.pid AS p1, b.date_time AS t2 FROM " + table +
                  " a JOIN " + other + " b ON " + on + " WHERE %W AND %X";
        break;
      }
      case 6: {
        // Events within a time window of others: a self-join or another table.
        const std::string other = random_() % 2 == 0 ? table : kTables[random_() % 3];
        s.where = Tree(table, "a.", 1);
        s.shape = "SELECT count(*), sum(b.pid) FROM " + table + " a JOIN " + other +
                  " b ON b.date_time BETWEEN a.date_time AND a.date_time + " +
                  std::to_string(random_() % 5000) + " WHERE %W";
        break;
      }
      case 7: {
        const std::string other = kTables[random_() % 3];
        s.extra = Tree(other, "", 1);
        s.shape = "SELECT " + columns + " FROM " + table + " WHERE %W AND pid " +
                  (random_() % 2 == 0 ? "IN" : "NOT IN") + " (SELECT pid FROM " + other +
                  " WHERE %X)";
        break;
      }
      default:
        s.extra = Tree(table, "", 1);
        s.shape = "SELECT " + columns + " FROM " + table + " WHERE %W UNION ALL SELECT " +
                  columns + " FROM " + table + " WHERE %X";
        break;
    }
    if (s.extra.store.empty() && s.extra.children.empty()) s.extra.store = s.extra.reference = "1";
    return s;
  }

  std::mt19937& random() { return random_; }
  Expr Term(const std::string& table, const std::string& prefix) { return MakeTerm(table, prefix); }

 private:
  Expr Tree(const std::string& table, const std::string& prefix, int depth) {
    const uint32_t roll = random_() % 10;
    if (depth >= 3 || roll < 4) return MakeTerm(table, prefix);
    Expr e;
    if (roll < 5) {
      e.kind = Expr::kNot;
      e.children.push_back(Tree(table, prefix, depth + 1));
      return e;
    }
    e.kind = roll < 8 ? Expr::kAnd : Expr::kOr;
    for (uint32_t n = 2 + random_() % 2; n > 0; --n) {
      e.children.push_back(Tree(table, prefix, depth + 1));
    }
    return e;
  }

  std::string Columns(const std::string& table, const std::string& prefix) {
    std::string out;
    for (uint32_t n = 1 + random_() % 4; n > 0; --n) {
      const std::string c = prefix + Column(table, false);
      if (out.find(c) != std::string::npos) continue;
      out += (out.empty() ? "" : ", ") + c;
    }
    return out;
  }

  std::string Column(const std::string& table, bool time_allowed) {
    const TableInfo& info = Info(table);
    const ColumnInfo& c = info.columns[time_allowed ? random_() % info.column_count
                                                     : 1 + random_() % (info.column_count - 1)];
    return c.name;
  }

  static const TableInfo& Info(const std::string& table) {
    return *Storage::OSQuery::FindTable(Storage::OSQuery::TableIdByName(table));
  }

  const Json& Sample(const std::string& table, size_t column) {
    const auto& rows = by_table_[table];
    return rows[random_() % rows.size()]->values[column];
  }

  // A number for the store (an id past 2^63 written unsigned, as copied from
  // the tool's output) and for SQLite (signed, as it holds it).
  static std::pair<std::string, std::string> Number(int64_t value, ColumnKind kind) {
    if (kind == ColumnKind::kUInt64 && value < 0) {
      return {std::to_string(static_cast<uint64_t>(value)), std::to_string(value)};
    }
    return {std::to_string(value), std::to_string(value)};
  }

  static std::string Quoted(std::string text) {
    for (size_t i = text.find('\''); i != std::string::npos; i = text.find('\'', i + 2)) {
      text.insert(i, 1, '\'');
    }
    return "'" + text + "'";
  }

  Expr MakeTerm(const std::string& table, const std::string& prefix) {
    const TableInfo& info = Info(table);
    const size_t index = random_() % 4 == 0 ? 0 : random_() % info.column_count;
    const ColumnInfo& column = info.columns[index];
    const std::string name = prefix + column.name;
    static const char* const kOps[] = {"=", "<>", "<", "<=", ">", ">="};
    const char* op = kOps[random_() % 6];
    Expr e;
    auto both = [&e](std::string store, std::string reference) {
      e.store = std::move(store);
      e.reference = std::move(reference);
    };
    if (column.kind == ColumnKind::kDateTime || IsNumericKind(column.kind)) {
      int64_t value = Sample(table, index).get<int64_t>();
      const uint32_t nudge = random_() % 4;
      if (nudge == 1) value += static_cast<int64_t>(random_() % 2000) - 1000;
      if (nudge == 2 && column.kind == ColumnKind::kDateTime) {
        value += static_cast<int64_t>(random_() % 7'200'000) - 3'600'000;
      }
      const auto [store, reference] = Number(value, column.kind);
      switch (random_() % 6) {
        case 0: {
          const int64_t other = Sample(table, index).get<int64_t>();
          const auto [s2, r2] = Number(other, column.kind);
          both(name + " IN (" + store + ", " + s2 + ")",
               name + " IN (" + reference + ", " + r2 + ")");
          break;
        }
        case 1: {
          const int64_t width = column.kind == ColumnKind::kDateTime ? random_() % 3'600'000
                                                                     : random_() % 1000;
          const auto [s2, r2] = Number(value + width, column.kind);
          both(name + " BETWEEN " + store + " AND " + s2,
               name + " BETWEEN " + reference + " AND " + r2);
          break;
        }
        case 2:
          both(name + (random_() % 2 ? " IS NULL" : " IS NOT NULL"), "");
          e.reference = e.store;
          break;
        default:
          both(name + " " + op + " " + store, name + " " + op + " " + reference);
          break;
      }
      return e;
    }
    const std::string sample = Sample(table, index).get<std::string>();
    switch (random_() % 6) {
      case 0:
      case 1: {
        // LIKE over a piece of a real value, in other case sometimes.
        std::string pattern = sample.substr(0, sample.size() / 2);
        if (random_() % 3 == 0) {
          for (char& c : pattern) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
          }
        }
        pattern = (random_() % 2 ? "%" : "") + pattern + "%";
        if (random_() % 4 == 0 && !pattern.empty()) pattern[pattern.size() / 2] = '_';
        both(name + " LIKE " + Quoted(pattern), "");
        break;
      }
      case 2: {
        // A literal "%" or "_" through ESCAPE.
        std::string pattern = "%\\_%";
        if (random_() % 2) pattern = sample.substr(0, 2) + "%";
        both(name + " LIKE " + Quoted(pattern) + " ESCAPE '\\'", "");
        break;
      }
      case 3:
        both(name + (random_() % 2 ? " IS NULL" : " = ''"), "");
        break;
      default:
        both(name + " " + op + " " + Quoted(sample), "");
        break;
    }
    e.reference = e.store;
    return e;
  }

  std::mt19937 random_;
  std::map<std::string, std::vector<const GeneratedRow*>> by_table_;
};

}  // namespace Tarn::Tool::test
