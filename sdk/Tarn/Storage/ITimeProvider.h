#pragma once

#include <cstdint>

namespace Tarn::Storage {

// The clock the store reads all its times from, so hosts and tests can
// replace it. Three virtual operations in this order.
class ITimeProvider {
 public:
  // Seconds since 1970-01-01 UTC.
  virtual uint64_t GetEpochTime() = 0;
  // Milliseconds since 1970-01-01 UTC.
  virtual uint64_t GetSystemTime() = 0;
  virtual ~ITimeProvider() = default;
};

}  // namespace Tarn::Storage
