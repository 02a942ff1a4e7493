#pragma once

#include <cstdint>

#include "Keel/Collections/Buffer.h"
#include "Tarn/Events/Base.h"
#include "manager/writer/Settings.h"
#include "osquery/AddRow.h"
#include "osquery/Columns.h"
#include "osquery/ConstraintsList.h"
#include "osquery/ResponseBuilder.h"

namespace Tarn::Storage {
class EventStorageProvider;
}

namespace Tarn::Storage::OSQuery {

// How a matching event becomes a row: AddRow, unless a test needs rows to
// fail (no stored event can make AddRow fail short of memory).
using RowAdder = RowResult (*)(const Events::Objects::Base& event, ResponseBuilder& response,
                               const ColumnSelection& columns, const OSQuerySettings& settings,
                               Keel::Collections::Buffer& scratch);

// What one scan looks for, and where: positions `start` to `end`, both
// included, in store order.
struct ScanRequest {
  uint32_t type_id = 0;
  const ColumnSelection* columns = nullptr;
  const ConstraintsList* constraints = nullptr;
  uint64_t start = ~uint64_t{0};
  uint64_t end = ~uint64_t{0};
};

// Walks the positions and appends a row for every event of the table, of
// the version it accepts, that satisfies the constraints. Sets the
// response's status (and its token for a partial answer); true for a
// complete (0) or partial (8) answer. The row limit is checked before each
// position, matching or not.
bool ScanPositions(EventStorageProvider& provider, const OSQuerySettings& settings,
                   const ScanRequest& request, ResponseBuilder& response,
                   RowAdder add_row = &AddRow);

}  // namespace Tarn::Storage::OSQuery
