#include "hx/MessageBus/Msg.h"

#include <new>

#include "Keel/Log.h"

namespace hx::MessageBus {
namespace {

enum Message : uint32_t {
  kNullBytes = 40,
  kOutOfMemory = 41,
};

}  // namespace

bool Msg::SetField(std::string_view name, const void* bytes, size_t size) {
  if (bytes == nullptr && size != 0) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::Events, kNullBytes, size, 0, 0);
    return false;
  }
  // A field can be tens of megabytes (a query answer); a failed copy must
  // not take the caller down.
  try {
    std::string value(static_cast<const char*>(bytes), size);
    auto it = fields_.find(name);
    if (it == fields_.end()) {
      fields_.emplace(std::string(name), std::move(value));
    } else {
      it->second = std::move(value);
    }
  } catch (const std::bad_alloc&) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::Events, kOutOfMemory, size, 0, 0);
    return false;
  }
  return true;
}

std::optional<std::string_view> Msg::GetField(std::string_view name) const {
  auto it = fields_.find(name);
  if (it == fields_.end()) return std::nullopt;
  return std::string_view(it->second);
}

}  // namespace hx::MessageBus
