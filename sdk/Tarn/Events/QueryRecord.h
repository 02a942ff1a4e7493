#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Tarn/Events/Record.h"

namespace Tarn::Events {

class DynamicEventBuilder;

// A table query as a type-221 record. After the header: u8 local flag, u8 0,
// u16 page, u32 0, u64 token (all ones: none), then the u16 offsets of three
// texts: table, columns, constraints.
struct QueryRecord {
  static constexpr uint32_t kTypeId = Record::kQueryRecordType;
  static constexpr uint16_t kVersion = 1;
  static constexpr uint64_t kNoToken = ~0ull;

  static constexpr uint32_t kLocalOffset = Record::kHeaderSize;
  static constexpr uint32_t kPageOffset = Record::kHeaderSize + 2;
  static constexpr uint32_t kTokenOffset = Record::kHeaderSize + 8;
  static constexpr uint32_t kTableSlot = Record::kHeaderSize + 16;
  static constexpr uint32_t kColumnsSlot = Record::kHeaderSize + 18;
  static constexpr uint32_t kConstraintsSlot = Record::kHeaderSize + 20;
  static constexpr uint32_t kFixedEnd = Record::kHeaderSize + 22;

  bool local = false;  // answer on the in-process bus
  uint16_t page = 0;   // continuation requests made so far
  uint64_t token = kNoToken;
  std::string_view table;
  std::string_view columns;
  std::string_view constraints;

  // Builds the record in `builder` (Begin to Finish).
  bool Write(DynamicEventBuilder& builder, uint64_t time_ms = 0) const;

  // Fills the fields from a record; the texts then view the record's bytes.
  // False, with the fields untouched, when the record is not a whole type-221
  // record with its fixed part. Texts out of range read as empty.
  bool Read(const void* data, size_t size);
};

}  // namespace Tarn::Events
