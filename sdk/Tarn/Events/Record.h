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

inline uint16_t LoadUInt16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline uint32_t LoadUInt32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline uint64_t LoadUInt64(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline void StoreUInt16(uint8_t* p, uint16_t v) { std::memcpy(p, &v, sizeof v); }
inline void StoreUInt32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, sizeof v); }
inline void StoreUInt64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, sizeof v); }

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
