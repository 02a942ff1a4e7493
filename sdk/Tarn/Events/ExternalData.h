#pragma once

namespace hx::MessageBus {
class Msg;
}

namespace Tarn::Events {

// What comes with an event besides its record. For a query that is the
// requester's message, which the answer is written into; it may be absent.
class ExternalData {
 public:
  ExternalData() = default;
  explicit ExternalData(hx::MessageBus::Msg* message) : message_(message) {}

  hx::MessageBus::Msg* Message() const { return message_; }
  void SetMessage(hx::MessageBus::Msg* message) { message_ = message; }

 private:
  hx::MessageBus::Msg* message_ = nullptr;
};

}  // namespace Tarn::Events
