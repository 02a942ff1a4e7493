#pragma once

// The per-kind steps of the generated matchers: each tests one constraint
// against one column of a record and answers whether the record may still
// match. Columns are read through the bounded reader, so a corrupt record
// compares as empty fields.

#include <cstdint>
#include <string_view>

#include "Tarn/Events/EventReader.h"
#include "osquery/Constraint.h"

namespace Tarn::Storage::OSQuery {

bool MatchNumberColumn(uint64_t value, const Constraint& c);
bool MatchTextColumn(std::string_view text, const Constraint& c);
// Addresses and lists are matched in the text form a row shows them in.
bool MatchAddressColumn(const Events::EventReader& r, uint32_t slot, const Constraint& c);
bool MatchTextListColumn(const Events::EventReader& r, uint32_t slot, const Constraint& c);
bool MatchNumberListColumn(const Events::EventReader& r, uint32_t slot, const Constraint& c);

// date_time narrows the scanned range before any matcher runs.
bool PassDateTime(const Constraint& c);
// A column the table does not have filters nothing.
bool PassUnknownColumn(const Constraint& c);

}  // namespace Tarn::Storage::OSQuery
