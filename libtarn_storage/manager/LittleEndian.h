#pragma once

#include <cstdint>

// Fixed-width little-endian fields of the store's files, independent of the
// host's byte order.
namespace Tarn::Storage::LittleEndian {

inline void Store16(uint8_t* out, uint16_t value) {
  out[0] = static_cast<uint8_t>(value);
  out[1] = static_cast<uint8_t>(value >> 8);
}

inline void Store32(uint8_t* out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

inline uint16_t Load16(const uint8_t* in) { return static_cast<uint16_t>(in[0] | (in[1] << 8)); }

inline uint32_t Load32(const uint8_t* in) {
  return static_cast<uint32_t>(in[0]) | (static_cast<uint32_t>(in[1]) << 8) |
         (static_cast<uint32_t>(in[2]) << 16) | (static_cast<uint32_t>(in[3]) << 24);
}

inline uint64_t Load64(const uint8_t* in) {
  return Load32(in) | (static_cast<uint64_t>(Load32(in + 4)) << 32);
}

}  // namespace Tarn::Storage::LittleEndian
