#include "Keel/Collections/Growth.h"

#include <algorithm>

namespace Keel::Internal {

uint64_t CalculateCollectionGrowth(uint64_t current, uint64_t needed, uint64_t maximum,
                                   Collections::GrowType::Type grow, uint32_t step) {
  if (needed > maximum) return 0;
  uint64_t increment = 0;
  if (grow == Collections::GrowType::Percent) {
    increment = current * std::max<uint32_t>(step, 1) / 100;
  } else {
    increment = std::max<uint32_t>(step, 1);
  }
  // A small collection growing by percent would otherwise creep one by one.
  increment = std::max<uint64_t>(increment, 8);
  uint64_t grown = current + increment;
  return std::min(std::max(grown, needed), maximum);
}

}  // namespace Keel::Internal
