#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "Tarn/Module/ConfigReader.h"

namespace Tarn::Module {

// A configuration held in memory, for hosts that read theirs from a file or
// the command line, and for tests. Values are typed: a key set as a 32-bit
// number is not read back as a 64-bit one. Setting a key again replaces it.
class MapConfigReader final : public ConfigReader {
 public:
  void SetString(uint32_t key, std::string_view value) { values_[key] = std::string(value); }
  void SetUInt64(uint32_t key, uint64_t value) { values_[key] = value; }
  void SetUInt32(uint32_t key, uint32_t value) { values_[key] = value; }
  void SetBool(uint32_t key, bool value) { values_[key] = value; }
  void Remove(uint32_t key) { values_.erase(key); }
  bool Contains(uint32_t key) const { return values_.count(key) != 0; }

  // A string longer than `out`'s capacity is not read: false, `out` kept.
  bool GetString(uint32_t key, Keel::Utils::String& out) const override;
  bool GetUInt64(uint32_t key, uint64_t& out) const override;
  bool GetUInt32(uint32_t key, uint32_t& out) const override;
  bool GetBool(uint32_t key, bool& out, uint32_t reserved_a, uint32_t reserved_b) const override;

 private:
  using Value = std::variant<std::string, uint64_t, uint32_t, bool>;

  template <typename T>
  const T* Find(uint32_t key) const {
    auto it = values_.find(key);
    return it == values_.end() ? nullptr : std::get_if<T>(&it->second);
  }

  std::map<uint32_t, Value> values_;
};

}  // namespace Tarn::Module
