#pragma once

#include <cstdint>

#include "Keel/Collections/Buffer.h"
#include "Tarn/Events/Base.h"
#include "manager/writer/Settings.h"
#include "osquery/Columns.h"
#include "osquery/ResponseBuilder.h"

namespace Tarn::Storage::OSQuery {

enum RowResult : uint32_t {
  kRowAdded = 0,
  kRowBufferFull = 2,  // nothing was written; the answer is partial
  kRowFailed = 3,      // no converter, or serialization failed
};

// Converts a matching event into its row and appends it to the response as
// a u32 length and the serialized message, counting it in `rows`. The row's
// message lives on an arena whose first block is `scratch` (its capacity, at
// least 8 KiB once called), so a row allocates little beyond that block.
// With `aux_flag` set the row is also rendered as JSON for the debug log.
// When the row does not fit the buffer (it never grows past its maximum)
// the result is kRowBufferFull and the buffer is unchanged.
RowResult AddRow(const Events::Objects::Base& event, ResponseBuilder& response,
                 const ColumnSelection& columns, const OSQuerySettings& settings,
                 Keel::Collections::Buffer& scratch);

}  // namespace Tarn::Storage::OSQuery
