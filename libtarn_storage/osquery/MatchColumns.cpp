#include "osquery/MatchColumns.h"

#include <string>

#include "Keel/Log.h"
#include "Keel/Utils/String.h"
#include "osquery/RowFields.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNotNumericAffinity = 30,  // a = column hash, b = affinity
  kTextUnknownAffinity = 31,  // a = column hash
  kAddressNotText = 32,      // a = column hash, b = affinity ("TEXT_TYPE")
  kDateTimeSkipped = 33,     // a = operator
  kUnknownColumn = 34,       // a = column hash, b = operator
};

}  // namespace

bool MatchNumberColumn(uint64_t value, const Constraint& c) {
  if (!c.IsNumeric()) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kNotNumericAffinity, c.column_hash,
             c.affinity, 0);
    return true;
  }
  return c.MatchNumber(value);
}

bool MatchTextColumn(std::string_view text, const Constraint& c) {
  if (c.affinity == kUnknownAffinity) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kTextUnknownAffinity, c.column_hash, 0, 0);
    return true;
  }
  return c.MatchText(text);
}

bool MatchAddressColumn(const Events::EventReader& r, uint32_t slot, const Constraint& c) {
  if (c.affinity != kTextAffinity) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kAddressNotText, c.column_hash,
             c.affinity, 0);
    return true;
  }
  return c.MatchText(RowAddress(r, slot));
}

bool MatchTextListColumn(const Events::EventReader& r, uint32_t slot, const Constraint& c) {
  return MatchTextColumn(RowTextList(r, slot), c);
}

bool MatchNumberListColumn(const Events::EventReader& r, uint32_t slot, const Constraint& c) {
  return MatchTextColumn(RowNumberList(r, slot), c);
}

bool PassDateTime(const Constraint& c) {
  KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kDateTimeSkipped, c.op, 0, 0);
  return true;
}

bool PassUnknownColumn(const Constraint& c) {
  KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kUnknownColumn, c.column_hash, c.op, 0);
  return true;
}

}  // namespace Tarn::Storage::OSQuery
