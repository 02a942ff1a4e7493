#pragma once

// How a scan of a store table is planned: which of SQLite's terms go to
// the store, what the scan is guessed to cost, and the plan xBestIndex hands
// xFilter, written into idxStr.

#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "osquery/Tables.h"
#include "tarn/sql/SqlConstraints.h"
#include "tarn/sql/SqlValue.h"

namespace Tarn::Tool {

struct PlanTerm {
  uint16_t column = 0;
  uint8_t op = 0;
  bool constant = false;  // its value is known when the statement is prepared
};

// Written as "<columns used>;<column>,<op>,<c|v>;…" in idxStr.
struct ScanPlan {
  uint64_t used = 0;  // SQLite's colUsed: bit i, column i
  std::vector<PlanTerm> terms;  // in argv order

  std::string Encode() const {
    std::string text = std::to_string(used);
    for (const PlanTerm& t : terms) {
      text += ';' + std::to_string(t.column) + ',' + std::to_string(t.op) + ',' +
              (t.constant ? 'c' : 'v');
    }
    return text;
  }

  bool Decode(const char* text) {
    if (text == nullptr) return false;
    char* end = nullptr;
    used = std::strtoull(text, &end, 10);
    terms.clear();
    while (*end == ';') {
      PlanTerm t;
      t.column = static_cast<uint16_t>(std::strtoul(end + 1, &end, 10));
      if (*end != ',') return false;
      t.op = static_cast<uint8_t>(std::strtoul(end + 1, &end, 10));
      if (*end != ',' || (end[1] != 'c' && end[1] != 'v')) return false;
      t.constant = end[1] == 'c';
      end += 2;
      terms.push_back(t);
    }
    return *end == '\0';
  }
};

// The plan of a scan of `table` under SQLite's offer `info`: every usable
// term the store can apply, handed to xFilter in argv order (SQLite checks
// each again). `known` gets the terms whose values SQLite knows now.
ScanPlan PlanScan(const Storage::OSQuery::TableInfo& table, sqlite3_index_info* info,
              std::vector<SqlConstraint>& known);

// Sets the cost and rows SQLite weighs the plan by.
void Estimate(const ScanPlan& plan, sqlite3_index_info* info);

// The column list of the query: the columns the statement uses. None
// (count(*)) asks for the smallest; all asks for every one.
std::string ColumnsText(const Storage::OSQuery::TableInfo& table, uint64_t used);

SqlValue ValueOf(sqlite3_value* value);

}  // namespace Tarn::Tool
