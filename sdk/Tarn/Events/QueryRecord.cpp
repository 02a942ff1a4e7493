#include "Tarn/Events/QueryRecord.h"

#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/EventHeader.h"
#include "Tarn/Events/EventReader.h"

namespace Tarn::Events {

bool QueryRecord::Write(DynamicEventBuilder& builder, uint64_t time_ms) const {
  return builder.Begin(kTypeId, kVersion, time_ms) && builder.AddUInt8(local ? 1 : 0) &&
         builder.AddUInt8(0) && builder.AddUInt16(page) && builder.AddUInt32(0) &&
         builder.AddUInt64(token) && builder.AddText(table) && builder.AddText(columns) &&
         builder.AddText(constraints) && builder.Finish();
}

bool QueryRecord::Read(const void* data, size_t size) {
  EventHeader header(data, size);
  if (!header.Valid() || header.TypeId() != kTypeId || header.Size() < kFixedEnd) return false;
  EventReader reader(data, size);
  local = reader.UInt8(kLocalOffset) != 0;
  page = reader.UInt16(kPageOffset);
  token = reader.UInt64(kTokenOffset);
  table = reader.Text(kTableSlot);
  columns = reader.Text(kColumnsSlot);
  constraints = reader.Text(kConstraintsSlot);
  return true;
}

}  // namespace Tarn::Events
