#pragma once

#include <cstdint>

#include "Keel/Export.h"

namespace Keel::Collections::GrowType {

// How a collection grows once its capacity is used up.
//   Linear:  by `step` elements.
//   Percent: by `step` percent of the current capacity (100 doubles it).
enum Type : uint32_t {
  Linear = 0,
  Percent = 1,
};

}  // namespace Keel::Collections::GrowType

namespace Keel::Collections {

// No limit: the `maximum` argument of Create when it is all ones.
constexpr uint32_t kUnlimited = 0xFFFFFFFFu;

}  // namespace Keel::Collections

namespace Keel::Internal {

// The capacity a collection holding `current` slots grows to when it needs at
// least `needed`: grown by the policy, at least `needed`, at most `maximum`.
// Returns 0 when `needed` exceeds `maximum`.
KEEL_API uint64_t CalculateCollectionGrowth(uint64_t current, uint64_t needed, uint64_t maximum,
                                            Collections::GrowType::Type grow, uint32_t step);

}  // namespace Keel::Internal
