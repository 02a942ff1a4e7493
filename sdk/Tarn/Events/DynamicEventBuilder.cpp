#include "Tarn/Events/DynamicEventBuilder.h"

#include <cstring>

#include "Keel/Log.h"
#include "Tarn/Events/Record.h"

namespace Tarn::Events {
namespace {

enum Message : uint32_t {
  kTypeIdTooLarge = 1,
  kRecordTooLarge = 2,
  kOutOfMemory = 3,
  kNotBuilding = 4,
  kListTooLong = 5,
};

constexpr uint32_t kInVariablePart = 0x80000000u;
constexpr uint32_t kMaxListItems = 0xFFFF;

bool CreateOnce(Keel::Collections::Buffer& buffer, uint64_t initial) {
  if (buffer.IsCreated()) return true;
  return buffer.Create(initial, Record::kMaxRecordSize);
}

}  // namespace

bool DynamicEventBuilder::Begin(uint32_t type_id, uint16_t version, uint64_t time_ms) {
  begun_ = true;
  finished_ = false;
  failed_ = false;
  if (!CreateOnce(record_, 512) || !CreateOnce(variable_, 512) || !CreateOnce(fixups_, 64)) {
    return Fail(kOutOfMemory, 0);
  }
  record_.Reset();
  variable_.Reset();
  fixups_.Reset();
  if (type_id > Record::kMaxTypeId) return Fail(kTypeIdTooLarge, type_id);
  bool ok = record_.PushUInt32(type_id) && record_.PushUInt32(0) && record_.PushUInt16(version) &&
            record_.PushUInt16(0) && record_.PushUInt32(0) && record_.PushUInt64(time_ms);
  return ok || Fail(kOutOfMemory, Record::kHeaderSize);
}

void DynamicEventBuilder::SetDoNotStore(bool on) {
  if (!begun_ || finished_ || failed_) return;
  uint8_t* flags = record_.Data() + Record::kFlagsOffset;
  uint32_t word = Record::LoadUInt32(flags);
  word = on ? (word | Record::kDoNotStoreFlag) : (word & ~Record::kDoNotStoreFlag);
  Record::StoreUInt32(flags, word);
}

bool DynamicEventBuilder::Fail(uint32_t message, uint64_t value) {
  // One record per refused event, not one per call after the first failure.
  if (!failed_) KEEL_LOG(Keel::Log::Error, Keel::Log::Events, message, value, record_.Size(), 0);
  failed_ = true;
  return false;
}

bool DynamicEventBuilder::Writable() {
  if (failed_) return false;
  if (!begun_ || finished_) return Fail(kNotBuilding, finished_);
  return true;
}

bool DynamicEventBuilder::Reserve(size_t fixed_bytes, size_t variable_bytes) {
  if (!Writable()) return false;
  size_t total = record_.Size() + variable_.Size() + fixed_bytes + variable_bytes;
  if (total > Record::kMaxRecordSize) return Fail(kRecordTooLarge, total);
  return true;
}

bool DynamicEventBuilder::PushFixedOffset(size_t variable_offset) {
  bool ok = fixups_.PushUInt32(static_cast<uint32_t>(record_.Size())) &&
            record_.PushUInt16(static_cast<uint16_t>(variable_offset));
  return ok || Fail(kOutOfMemory, 2);
}

bool DynamicEventBuilder::PushVariableOffset(size_t variable_offset) {
  bool ok = fixups_.PushUInt32(static_cast<uint32_t>(variable_.Size()) | kInVariablePart) &&
            variable_.PushUInt16(static_cast<uint16_t>(variable_offset));
  return ok || Fail(kOutOfMemory, 2);
}

bool DynamicEventBuilder::AddUInt8(uint8_t value) {
  if (!Reserve(1, 0)) return false;
  return record_.PushUInt8(value) || Fail(kOutOfMemory, 1);
}

bool DynamicEventBuilder::AddUInt16(uint16_t value) {
  if (!Reserve(2, 0)) return false;
  return record_.PushUInt16(value) || Fail(kOutOfMemory, 2);
}

bool DynamicEventBuilder::AddUInt32(uint32_t value) {
  if (!Reserve(4, 0)) return false;
  return record_.PushUInt32(value) || Fail(kOutOfMemory, 4);
}

bool DynamicEventBuilder::AddUInt64(uint64_t value) {
  if (!Reserve(8, 0)) return false;
  return record_.PushUInt64(value) || Fail(kOutOfMemory, 8);
}

bool DynamicEventBuilder::AddText(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  if (text.empty()) return AddUInt16(0);
  if (!Reserve(2, text.size() + 1)) return false;
  size_t offset = variable_.Size();
  if (!variable_.Push(text.data(), text.size()) || !variable_.PushUInt8(0)) {
    return Fail(kOutOfMemory, text.size());
  }
  return PushFixedOffset(offset);
}

bool DynamicEventBuilder::AddAddress(const Address& address) {
  if (!Reserve(2, 1 + address.Length())) return false;
  size_t offset = variable_.Size();
  if (!variable_.PushUInt8(address.ipv6 ? 1 : 0) ||
      !variable_.Push(address.bytes, address.Length())) {
    return Fail(kOutOfMemory, address.Length());
  }
  return PushFixedOffset(offset);
}

bool DynamicEventBuilder::AddEmptyAddress() { return AddUInt16(0); }

bool DynamicEventBuilder::AddTextList(std::span<const std::string_view> items) {
  if (items.size() > kMaxListItems) return Writable() && Fail(kListTooLong, items.size());
  if (items.empty()) return Reserve(4, 0) && AddUInt16(0) && AddUInt16(0);
  size_t bytes = 2 * items.size();
  for (std::string_view item : items) {
    size_t length = item.substr(0, item.find('\0')).size();
    if (length > 0) bytes += length + 1;
  }
  if (!Reserve(4, bytes)) return false;

  // The offset array comes first; each text's offset is filled in after the
  // text is appended, because appending may move the buffer.
  size_t array = variable_.Size();
  if (!variable_.PushFill(0, 2 * items.size())) return Fail(kOutOfMemory, bytes);
  for (size_t i = 0; i < items.size(); ++i) {
    std::string_view item = items[i].substr(0, items[i].find('\0'));
    if (item.empty()) continue;
    size_t text = variable_.Size();
    if (!variable_.Push(item.data(), item.size()) || !variable_.PushUInt8(0) ||
        !fixups_.PushUInt32(static_cast<uint32_t>(array + 2 * i) | kInVariablePart)) {
      return Fail(kOutOfMemory, bytes);
    }
    Record::StoreUInt16(variable_.Data() + array + 2 * i, static_cast<uint16_t>(text));
  }
  if (!record_.PushUInt16(static_cast<uint16_t>(items.size()))) return Fail(kOutOfMemory, 2);
  return PushFixedOffset(array);
}

bool DynamicEventBuilder::AddNumberList(std::span<const uint64_t> values) {
  if (values.size() > kMaxListItems) return Writable() && Fail(kListTooLong, values.size());
  if (values.empty()) return Reserve(4, 0) && AddUInt16(0) && AddUInt16(0);
  if (!Reserve(4, 8 * values.size())) return false;
  size_t array = variable_.Size();
  for (uint64_t value : values) {
    if (!variable_.PushUInt64(value)) return Fail(kOutOfMemory, 8 * values.size());
  }
  if (!record_.PushUInt16(static_cast<uint16_t>(values.size()))) return Fail(kOutOfMemory, 2);
  return PushFixedOffset(array);
}

bool DynamicEventBuilder::Finish() {
  if (!Writable()) return false;
  // Offsets were taken relative to the variable part, which starts where the
  // fixed part ends. Reserve kept the total within 16 bits, so they fit.
  const uint32_t base = static_cast<uint32_t>(record_.Size());
  for (uint64_t i = 0; i + 4 <= fixups_.Size(); i += 4) {
    uint32_t position = Record::LoadUInt32(fixups_.Data() + i);
    uint8_t* at = (position & kInVariablePart) ? variable_.Data() + (position & ~kInVariablePart)
                                               : record_.Data() + position;
    Record::StoreUInt16(at, static_cast<uint16_t>(Record::LoadUInt16(at) + base));
  }
  if (!record_.Push(variable_.Data(), variable_.Size())) {
    return Fail(kOutOfMemory, variable_.Size());
  }
  Record::StoreUInt16(record_.Data() + Record::kSizeOffset, static_cast<uint16_t>(record_.Size()));
  finished_ = true;
  return true;
}

}  // namespace Tarn::Events
