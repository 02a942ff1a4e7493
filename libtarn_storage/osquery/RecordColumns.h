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

// An empty text stores no address; text that is no address fails.
bool AddAddressColumn(Events::DynamicEventBuilder& b, std::string_view text);
bool AddTextListColumn(Events::DynamicEventBuilder& b, std::string_view joined);
// Decimal unsigned values joined by ","; anything else fails.
bool AddNumberListColumn(Events::DynamicEventBuilder& b, std::string_view joined);

}  // namespace Tarn::Storage::OSQuery
