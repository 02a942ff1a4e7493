#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace hx::MessageBus {

// A message-bus message: named byte fields. Answers are written into the
// requester's message; setting a name again replaces its bytes. Virtual so
// that a module can stand in its own message for local requests.
class Msg {
 public:
  Msg() = default;
  virtual ~Msg() = default;
  Msg(const Msg&) = delete;
  Msg& operator=(const Msg&) = delete;

  // Keeps a copy of `size` bytes under `name`. False, with the message
  // unchanged, when memory is short or `bytes` is null with a nonzero size.
  virtual bool SetField(std::string_view name, const void* bytes, size_t size);
  // The bytes of a field, viewing the message's copy; absent when not set.
  virtual std::optional<std::string_view> GetField(std::string_view name) const;

  bool HasField(std::string_view name) const { return GetField(name).has_value(); }
  size_t FieldCount() const { return fields_.size(); }
  void Clear() { fields_.clear(); }

 private:
  std::map<std::string, std::string, std::less<>> fields_;
};

}  // namespace hx::MessageBus
