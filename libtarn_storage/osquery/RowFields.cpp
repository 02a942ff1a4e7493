#include "osquery/RowFields.h"

#include <charconv>
#include <string>

#include "Keel/OS/Network.h"
#include "Keel/Utils/String.h"
#include "osquery/NameHash.h"

namespace Tarn::Storage::OSQuery {

namespace {

// Reused per thread so that rendering a column allocates only while the
// buffer still grows.
std::string& Scratch() {
  thread_local std::string text;
  text.clear();
  return text;
}

std::string_view CheckedUtf8(std::string_view text) {
  return Keel::Utils::String::IsValidUtf8(text) ? text : kInvalidUtf8Text;
}

void AppendItem(std::string& out, std::string_view item) {
  if (item.find(',') == std::string_view::npos) {
    out.append(item);
    return;
  }
  out.push_back('"');
  for (char c : item) {
    if (c == '"') out.push_back('"');
    out.push_back(c);
  }
  out.push_back('"');
}

}  // namespace

std::string_view RowText(const Events::EventReader& r, uint32_t slot) {
  return CheckedUtf8(r.Text(slot));
}

std::string_view RowAddress(const Events::EventReader& r, uint32_t slot) {
  Events::Address address;
  if (!r.ReadAddress(slot, address)) return {};
  thread_local Keel::Utils::String text;
  if (!Keel::OS::Network::FormatAddress(address.ipv6, address.bytes, text)) return {};
  return text.view();
}

std::string_view RowTextList(const Events::EventReader& r, uint32_t slot) {
  Events::EventReader::TextList items = r.Texts(slot);
  std::string& out = Scratch();
  for (uint32_t i = 0; i < items.Count(); ++i) {
    if (i > 0) out.push_back(',');
    AppendItem(out, items.At(i));
  }
  return CheckedUtf8(out);
}

std::string_view RowNumberList(const Events::EventReader& r, uint32_t slot) {
  Events::EventReader::NumberList values = r.Numbers(slot);
  std::string& out = Scratch();
  char digits[24];
  for (uint32_t i = 0; i < values.Count(); ++i) {
    if (i > 0) out.push_back(',');
    auto end = std::to_chars(digits, digits + sizeof digits, values.At(i)).ptr;
    out.append(digits, end);
  }
  return out;
}

SelectedColumns::SelectedColumns(const ColumnSelection& selection, const TableInfo& table) {
  if (selection.count > 0 && selection.hashes[0] == kAllColumnsHash) {
    all_ = table.columns;
    count_ = table.column_count;
    return;
  }
  hashes_ = selection.hashes;
  uint32_t limit = selection.count < ColumnSelection::kMaxColumns ? selection.count
                                                                   : ColumnSelection::kMaxColumns;
  while (count_ < limit && hashes_[count_] != 0) ++count_;
}

}  // namespace Tarn::Storage::OSQuery
