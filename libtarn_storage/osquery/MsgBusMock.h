#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "hx/MessageBus/Msg.h"

namespace Tarn::Storage::OSQuery {

// The message a local query is answered on: it keeps what the answer sets,
// by field name, in a copy of its own. Setting a name again replaces its
// bytes. Reading through the bus interface is not part of an answer and is
// refused as a misuse; the owner reads with Find.
class MsgBusMock final : public hx::MessageBus::Msg {
 public:
  bool SetField(std::string_view name, const void* bytes, size_t size) override;
  std::optional<std::string_view> GetField(std::string_view name) const override;

  // The bytes set under `name`, or null.
  const std::string* Find(std::string_view name) const;
  size_t Count() const { return fields_.size(); }

 private:
  std::map<std::string, std::string, std::less<>> fields_;
};

}  // namespace Tarn::Storage::OSQuery
