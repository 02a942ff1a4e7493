#pragma once

#include <cstddef>
#include <cstdint>

#include "Keel/Collections/Buffer.h"
#include "Tarn/Events/Base.h"

namespace Tarn::Events {

// Owns a copy of one record. A reader hands a stored event to Store; the
// copy outlives the block it came from.
class GenericEventHolder {
 public:
  GenericEventHolder() = default;
  GenericEventHolder(const GenericEventHolder&) = delete;
  GenericEventHolder& operator=(const GenericEventHolder&) = delete;

  // Copies a whole record: `size` must equal its size field. Anything else,
  // or a failed allocation, leaves the holder empty and returns false.
  bool Store(const void* record, size_t size);
  void Clear() { bytes_.Reset(); }

  bool Empty() const { return bytes_.Empty(); }
  const uint8_t* Data() const { return bytes_.Empty() ? nullptr : bytes_.Data(); }
  uint32_t Size() const { return static_cast<uint32_t>(bytes_.Size()); }
  Objects::Base Event() const { return Objects::Base(Data(), Size()); }

 private:
  Keel::Collections::Buffer bytes_;
};

}  // namespace Tarn::Events
