#include "osquery/ResponseBuffer.h"

#include "Tarn/Events/Record.h"

namespace Tarn::Storage::OSQuery {

bool CreateResponseBuffer(Keel::Collections::Buffer& buffer, uint32_t size_limit) {
  if (size_limit < ResponseLayout::kHeaderSize) return false;
  return buffer.Create(size_limit, size_limit, Keel::Collections::GrowType::Linear,
                       ResponseLayout::kGrowthStep);
}

bool WriteResponseHeader(Keel::Collections::Buffer& buffer) {
  buffer.Reset();
  return buffer.PushUInt8(ResponseLayout::kFormatVersion) &&
         buffer.PushUInt32(kStatusInternal) && buffer.PushUInt32(0);
}

void PatchResponseHeader(Keel::Collections::Buffer& buffer, uint32_t offset, uint32_t value) {
  if (buffer.Size() < ResponseLayout::kHeaderSize || offset + 4 > ResponseLayout::kHeaderSize) {
    return;
  }
  Events::Record::StoreUInt32(buffer.Data() + offset, value);
}

}  // namespace Tarn::Storage::OSQuery
