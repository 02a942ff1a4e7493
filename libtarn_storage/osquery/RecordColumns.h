#pragma once

// The inverse of the row forms: puts a row's address and list columns back
// into a record. For the generated record builders (tests and tools).

#include <string>
#include <string_view>
#include <vector>

#include "Tarn/Events/DynamicEventBuilder.h"

namespace Tarn::Storage::OSQuery {

// Items of a text list in its row form. An item that starts with a double
// quote runs to the matching closing quote, "" standing for one quote. An
// item that starts with a quote but was never quoted (no comma in it) comes
// back without its quotes: such items do not survive a round trip.
std::vector<std::string> SplitTextList(std::string_view joined);

// Reads an address as logs write it. "" and "-" (Windows' "no address") are
// none: true with `present` false. A zone suffix ("fe80::1%12") is read past,
// as a stored address has room for its bytes only, and they alone find the
// row. False for anything else.
bool ReadAddressText(std::string_view text, bool& present, Events::Address& address);

// An address as ReadAddressText reads it; anything else fails.
bool AddAddressColumn(Events::DynamicEventBuilder& b, std::string_view text);
bool AddTextListColumn(Events::DynamicEventBuilder& b, std::string_view joined);
// Decimal unsigned values joined by ","; anything else fails.
bool AddNumberListColumn(Events::DynamicEventBuilder& b, std::string_view joined);

}  // namespace Tarn::Storage::OSQuery
