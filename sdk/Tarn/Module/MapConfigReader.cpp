#include "Tarn/Module/MapConfigReader.h"

#include "Keel/Utils/String.h"

namespace Tarn::Module {

bool MapConfigReader::GetString(uint32_t key, Keel::Utils::String& out) const {
  const std::string* value = Find<std::string>(key);
  // Assign leaves the string unchanged when the value passes its capacity.
  return value != nullptr && out.Assign(*value);
}

bool MapConfigReader::GetUInt64(uint32_t key, uint64_t& out) const {
  const uint64_t* value = Find<uint64_t>(key);
  if (value == nullptr) return false;
  out = *value;
  return true;
}

bool MapConfigReader::GetUInt32(uint32_t key, uint32_t& out) const {
  const uint32_t* value = Find<uint32_t>(key);
  if (value == nullptr) return false;
  out = *value;
  return true;
}

bool MapConfigReader::GetBool(uint32_t key, bool& out, uint32_t, uint32_t) const {
  const bool* value = Find<bool>(key);
  if (value == nullptr) return false;
  out = *value;
  return true;
}

}  // namespace Tarn::Module
