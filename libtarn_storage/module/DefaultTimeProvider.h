#pragma once

#include "Keel/OS/Time.h"
#include "Tarn/Storage/ITimeProvider.h"

namespace Tarn::Storage {

// The host's clock, which a host may replace through Keel.
class DefaultTimeProvider final : public ITimeProvider {
 public:
  uint64_t GetEpochTime() override { return Keel::OS::Time::GetEpochTime(nullptr); }
  uint64_t GetSystemTime() override { return Keel::OS::Time::GetSystemTime(); }
};

}  // namespace Tarn::Storage
