#pragma once

// The text forms of stored columns, as rows carry them. Used by the
// generated converters and, for addresses and lists, by the matchers.

#include <cstdint>
#include <string_view>

#include "Tarn/Events/EventReader.h"
#include "osquery/Columns.h"
#include "osquery/Tables.h"

namespace Tarn::Storage::OSQuery {

// What a row shows instead of a text that is not well-formed UTF-8.
constexpr std::string_view kInvalidUtf8Text = "<invalid_utf8_string>";

// A text column: the stored text, or kInvalidUtf8Text.
std::string_view RowText(const Events::EventReader& r, uint32_t slot);

// The forms below are built in a per-thread buffer: each view is valid
// until the next call of any of them on the same thread.

// An address column: dotted IPv4 or RFC 5952 IPv6; empty when not stored.
std::string_view RowAddress(const Events::EventReader& r, uint32_t slot);
// A text list: items joined by ","; an item holding a "," is put in double
// quotes, with its own double quotes doubled. Checked as UTF-8 as a whole.
std::string_view RowTextList(const Events::EventReader& r, uint32_t slot);
// A number list: decimal values joined by ",".
std::string_view RowNumberList(const Events::EventReader& r, uint32_t slot);

// The column hashes a converter fills, in order: the selection's up to its
// first zero hash, or all of the table's when the selection begins with "*".
class SelectedColumns {
 public:
  SelectedColumns(const ColumnSelection& selection, const TableInfo& table);
  uint32_t Count() const { return count_; }
  uint32_t Hash(uint32_t i) const { return all_ != nullptr ? all_[i].hash : hashes_[i]; }

 private:
  const ColumnInfo* all_ = nullptr;
  const uint32_t* hashes_ = nullptr;
  uint32_t count_ = 0;
};

}  // namespace Tarn::Storage::OSQuery
