#include "osquery/MsgBusMock.h"

#include <cassert>
#include <new>

#include "Keel/Log.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kFieldSet = 100,           // a = name length, b = size
  kFieldRefused = 101,       // a = name length, b = size
  kInvalidMockCall = 102,
};

}  // namespace

bool MsgBusMock::SetField(std::string_view name, const void* bytes, size_t size) {
  KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kFieldSet, name.size(), size, 0);
  if (bytes == nullptr && size != 0) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kFieldRefused, name.size(), size, 0);
    return false;
  }
  try {
    std::string copy(static_cast<const char*>(bytes), size);
    auto it = fields_.find(name);
    if (it == fields_.end()) {
      fields_.emplace(std::string(name), std::move(copy));
    } else {
      it->second = std::move(copy);
    }
  } catch (const std::bad_alloc&) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kFieldRefused, name.size(), size, 0);
    return false;
  }
  return true;
}

std::optional<std::string_view> MsgBusMock::GetField(std::string_view) const {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kInvalidMockCall, 0, 0, 0);
  assert(false && "invalid mock interface call");
  return std::nullopt;
}

const std::string* MsgBusMock::Find(std::string_view name) const {
  auto it = fields_.find(name);
  return it == fields_.end() ? nullptr : &it->second;
}

}  // namespace Tarn::Storage::OSQuery
