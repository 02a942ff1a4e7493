#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tarn::Events::Record {

// Records are little-endian on disk and in memory; the agent runs only on
// little-endian machines, so loads and stores are plain unaligned copies.
static_assert(std::endian::native == std::endian::little, "event records are little-endian");

// Header layout: type word, flags word, version, size, reserved, time stamp.
constexpr uint32_t kTypeOffset = 0;
constexpr uint32_t kFlagsOffset = 4;
constexpr uint32_t kVersionOffset = 8;
constexpr uint32_t kSizeOffset = 10;
constexpr uint32_t kReservedOffset = 12;
constexpr uint32_t kTimeStampOffset = 16;
constexpr uint32_t kHeaderSize = 24;

// The size field is 16 bits wide, which bounds a whole record.
constexpr uint32_t kMaxRecordSize = 0xFFFF;

constexpr uint32_t kTypeIdMask = 0x3FF;
constexpr uint32_t kMaxTypeId = kTypeIdMask;
constexpr uint32_t kDoNotStoreFlag = 1u << 26;

// The two query types: they are answered, never stored.
constexpr uint32_t kStorageQueryType = 186;
constexpr uint32_t kQueryRecordType = 221;

// Fixed-width little-endian fields of records and of the store's files,
// whatever the host's byte order (compilers turn these into plain moves).
inline uint16_t LoadUInt16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t LoadUInt32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

inline uint64_t LoadUInt64(const uint8_t* p) {
  return LoadUInt32(p) | (static_cast<uint64_t>(LoadUInt32(p + 4)) << 32);
}

inline void StoreUInt16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

inline void StoreUInt32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline void StoreUInt64(uint8_t* p, uint64_t v) {
  StoreUInt32(p, static_cast<uint32_t>(v));
  StoreUInt32(p + 4, static_cast<uint32_t>(v >> 32));
}

// Length of the record that starts at `data`, taken from its size field, when
// that length is a whole header or more and lies within the `available`
// bytes; 0 otherwise. Lets a reader walk records packed one after another.
inline uint32_t RecordLength(const void* data, size_t available) {
  if (data == nullptr || available < kHeaderSize) return 0;
  uint32_t length = LoadUInt16(static_cast<const uint8_t*>(data) + kSizeOffset);
  if (length < kHeaderSize || length > available) return 0;
  return length;
}

}  // namespace Tarn::Events::Record
