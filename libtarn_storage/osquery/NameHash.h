#pragma once

#include <cstdint>
#include <string_view>

namespace Tarn::Storage::OSQuery {

// The one hash by which tables, columns and affinities are named: 32-bit
// FNV-1a over the bytes, with no case folding or trimming. A scan compares
// these numbers only, never the names.
constexpr uint32_t NameHash(std::string_view name) {
  uint32_t hash = 0x811C9DC5u;
  for (char c : name) {
    hash ^= static_cast<uint8_t>(c);
    hash *= 0x01000193u;
  }
  return hash;
}

// A column selection that begins with "*" asks for every column.
constexpr uint32_t kAllColumnsHash = NameHash("*");
constexpr uint32_t kDateTimeHash = NameHash("date_time");

static_assert(kAllColumnsHash == 0x2F0C9F3Du);
static_assert(kDateTimeHash == 0xE7657533u);

}  // namespace Tarn::Storage::OSQuery
