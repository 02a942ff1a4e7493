#include "osquery/RecordColumns.h"

#include <charconv>
#include <cstdint>

#include "Keel/OS/Network.h"
#include "Tarn/Events/Address.h"

namespace Tarn::Storage::OSQuery {

namespace {

// Reads a quoted item starting at the quote at `pos`. False when the quote
// is not closed right before a "," or the end.
bool ReadQuoted(std::string_view joined, size_t& pos, std::string& item) {
  size_t i = pos + 1;
  while (i < joined.size()) {
    if (joined[i] != '"') {
      item.push_back(joined[i++]);
    } else if (i + 1 < joined.size() && joined[i + 1] == '"') {
      item.push_back('"');
      i += 2;
    } else {
      ++i;
      if (i != joined.size() && joined[i] != ',') return false;
      pos = i;
      return true;
    }
  }
  return false;
}

}  // namespace

std::vector<std::string> SplitTextList(std::string_view joined) {
  std::vector<std::string> items;
  if (joined.empty()) return items;
  size_t pos = 0;
  while (true) {
    std::string item;
    size_t end = pos;
    if (pos < joined.size() && joined[pos] == '"' && ReadQuoted(joined, end, item)) {
      items.push_back(std::move(item));
    } else {
      end = joined.find(',', pos);
      if (end == std::string_view::npos) end = joined.size();
      items.emplace_back(joined.substr(pos, end - pos));
    }
    if (end == joined.size()) break;
    pos = end + 1;  // past the ","
  }
  return items;
}

bool ReadAddressText(std::string_view text, bool& present, Events::Address& address) {
  present = !(text.empty() || text == "-");
  if (!present) return true;
  const size_t zone = text.find('%');
  if (zone != std::string_view::npos) {
    if (zone + 1 == text.size()) return false;
    text = text.substr(0, zone);
  }
  return Keel::OS::Network::ParseAddress(text, address.ipv6, address.bytes) &&
         (zone == std::string_view::npos || address.ipv6);
}

bool AddAddressColumn(Events::DynamicEventBuilder& b, std::string_view text) {
  bool present = false;
  Events::Address address;
  if (!ReadAddressText(text, present, address)) return false;
  return present ? b.AddAddress(address) : b.AddEmptyAddress();
}

bool AddTextListColumn(Events::DynamicEventBuilder& b, std::string_view joined) {
  std::vector<std::string> items = SplitTextList(joined);
  std::vector<std::string_view> views(items.begin(), items.end());
  return b.AddTextList(views);
}

bool AddNumberListColumn(Events::DynamicEventBuilder& b, std::string_view joined) {
  std::vector<uint64_t> values;
  size_t pos = 0;
  while (!joined.empty()) {
    size_t end = joined.find(',', pos);
    if (end == std::string_view::npos) end = joined.size();
    uint64_t value;
    auto result = std::from_chars(joined.data() + pos, joined.data() + end, value, 10);
    if (result.ec != std::errc() || result.ptr != joined.data() + end) return false;
    values.push_back(value);
    if (end == joined.size()) break;
    pos = end + 1;
  }
  return b.AddNumberList(values);
}

}  // namespace Tarn::Storage::OSQuery
