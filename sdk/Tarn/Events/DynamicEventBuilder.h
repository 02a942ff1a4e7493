#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

#include "Keel/Collections/Buffer.h"
#include "Tarn/Events/Address.h"
#include "Tarn/Events/Base.h"

namespace Tarn::Events {

// Builds one event record: the header, then one fixed slot per column in the
// order the Add calls come, then the variable part the slots point to.
// Variable data is gathered apart and its offsets are fixed up at Finish, so
// callers need not know the fixed part's size in advance.
//
// Empty texts, addresses and lists are written as offset 0. A record that
// would pass 65,535 bytes, or any other failure, makes the builder refuse:
// every later call and Finish return false. The builder can be reused.
class DynamicEventBuilder {
 public:
  DynamicEventBuilder() = default;
  DynamicEventBuilder(const DynamicEventBuilder&) = delete;
  DynamicEventBuilder& operator=(const DynamicEventBuilder&) = delete;

  // Starts a new record and drops the previous one. A type id that does not
  // fit in 10 bits is refused.
  bool Begin(uint32_t type_id, uint16_t version, uint64_t time_ms);
  void SetDoNotStore(bool on);

  // Fixed bytes with no variable part.
  bool AddUInt8(uint8_t value);
  bool AddUInt16(uint16_t value);
  bool AddUInt32(uint32_t value);
  bool AddUInt64(uint64_t value);

  // A text is cut at its first NUL: that is where readers stop.
  bool AddText(std::string_view text);
  bool AddAddress(const Address& address);
  bool AddEmptyAddress();
  bool AddTextList(std::span<const std::string_view> items);
  bool AddTextList(std::initializer_list<std::string_view> items) {
    return AddTextList(std::span<const std::string_view>(items.begin(), items.size()));
  }
  bool AddNumberList(std::span<const uint64_t> values);

  // Appends the variable part and writes the size field. After it the
  // record is in Data()/Size() until the next Begin.
  bool Finish();

  bool Failed() const { return failed_; }
  const uint8_t* Data() const { return finished_ ? record_.Data() : nullptr; }
  uint32_t Size() const { return finished_ ? static_cast<uint32_t>(record_.Size()) : 0; }
  Objects::Base Event() const { return Objects::Base(Data(), Size()); }

 private:
  bool Writable();
  bool Fail(uint32_t message, uint64_t value);
  bool Reserve(size_t fixed_bytes, size_t variable_bytes);
  // A u16 offset into the variable part, written into the fixed part or the
  // variable part and listed for fix-up at Finish.
  bool PushFixedOffset(size_t variable_offset);
  bool PushVariableOffset(size_t variable_offset);

  Keel::Collections::Buffer record_;    // header and fixed part; whole record after Finish
  Keel::Collections::Buffer variable_;  // variable part, offsets relative to its start
  Keel::Collections::Buffer fixups_;    // u32 positions of offsets; high bit: in variable_
  bool begun_ = false;
  bool finished_ = false;
  bool failed_ = false;
};

}  // namespace Tarn::Events
