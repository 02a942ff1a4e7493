#pragma once

#include <cstdint>

namespace Keel::Utils {
class String;
}

namespace Tarn::Module {

// The host's keyed configuration. Keys are 32-bit numbers. Each getter
// returns false, leaving `out` as it was, when the key is absent or holds
// another type; callers preset `out` with their default.
class ConfigReader {
 public:
  virtual ~ConfigReader() = default;

  virtual bool GetString(uint32_t key, Keel::Utils::String& out) const = 0;
  virtual bool GetUInt64(uint32_t key, uint64_t& out) const = 0;
  virtual bool GetUInt32(uint32_t key, uint32_t& out) const = 0;
  // The two further arguments are the host's; modules pass 0.
  virtual bool GetBool(uint32_t key, bool& out, uint32_t reserved_a, uint32_t reserved_b) const = 0;
};

}  // namespace Tarn::Module
