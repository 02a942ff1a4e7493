#pragma once

// The conversions of the Windows mapping (WindowsRules): from the text of
// an event's field to the value of a column.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/import/WindowsRules.h"

namespace Tarn::Tool::Windows {

// What kIntegrity, kElevation and kStartType give for a text that names no
// value they know (a localized log, a newer Windows, "-" or nothing): no
// mandatory label RID, token elevation type or service start type, so a
// row never reads as Untrusted or as a boot start driver by mistake. The
// columns are 32-bit.
inline constexpr uint64_t kUnknownNamed = 0xFFFFFFFF;

// What some conversions take from the event rather than from a field.
struct EventFacts {
  int64_t time_ms = 0;
  uint32_t event_id = 0;
  std::string_view host;  // the computer that logged it, as the event names it
};

// True when the conversion gives a number, false when a text (kConstant
// gives either, as its column takes).
bool GivesNumber(Convert convert);

// A number column's value; false with `error` in words when `text` is not
// what the conversion reads.
bool ToNumber(Convert convert, std::string_view text, const EventFacts& facts, uint64_t& out,
              std::string& error);
// A text column's value (a list column's in its row form, "a,b").
bool ToText(Convert convert, std::string_view text, std::string& out, std::string& error);

// Decimal, or hexadecimal after "0x"; "-" and "" (Windows' "nothing") are 0.
bool ReadNumber(std::string_view text, uint64_t& out);
// The puid of a ProcessGuid: a 64-bit hash of its digits, case and braces
// aside, so every event of one process gives the same. 0 for the zero GUID.
uint64_t PuidOf(std::string_view guid);
// Items in the row form of a list column: joined by ",", an item holding a
// "," (or starting with a quote) in double quotes, its quotes doubled.
std::string JoinList(const std::vector<std::string>& items);

}  // namespace Tarn::Tool::Windows
