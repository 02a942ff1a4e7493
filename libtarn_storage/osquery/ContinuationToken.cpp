#include "osquery/ContinuationToken.h"

#include "Tarn/Events/Record.h"

namespace Tarn::Storage::OSQuery {

namespace {

constexpr size_t kMagicAt = 0;
constexpr size_t kPageAt = 4;
constexpr size_t kPadAt = 6;
constexpr size_t kPositionAt = 8;
constexpr size_t kTrailerAt = 16;

}  // namespace

void ContinuationToken::Encode(uint8_t (&out)[kSize]) const {
  using namespace Events::Record;
  StoreUInt32(out + kMagicAt, kMagic);
  StoreUInt16(out + kPageAt, page);
  StoreUInt16(out + kPadAt, 0);
  StoreUInt64(out + kPositionAt, position);
  StoreUInt64(out + kTrailerAt, 0);
}

bool ContinuationToken::Decode(const void* data, size_t size) {
  using namespace Events::Record;
  if (data == nullptr || size != kSize) return false;
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (LoadUInt32(bytes + kMagicAt) != kMagic || LoadUInt16(bytes + kPadAt) != 0 ||
      LoadUInt64(bytes + kTrailerAt) != 0) {
    return false;
  }
  page = LoadUInt16(bytes + kPageAt);
  position = LoadUInt64(bytes + kPositionAt);
  return true;
}

}  // namespace Tarn::Storage::OSQuery
