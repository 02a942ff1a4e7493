#pragma once

#include "Tarn/Events/Base.h"
#include "osquery/ConstraintsList.h"

namespace Tarn::Storage::OSQuery {

// True when a stored event satisfies every constraint, tested by its
// table's generated matcher (chosen by the type id in the record). An event
// whose type has no table is logged and does not match. Never allocates
// except to render an address or list column that is constrained.
bool MatchEvent(const Events::Objects::Base& event, const ConstraintsList& constraints);

}  // namespace Tarn::Storage::OSQuery
