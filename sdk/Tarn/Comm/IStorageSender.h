#pragma once

namespace Tarn::Events::Objects {
class Base;
}

namespace Tarn::Comm::Interface {

// Lets another module hand an event to the store as if the host had.
// Implementations are part of a larger object, which owns their lifetime.
class IStorageSender {
 public:
  virtual bool Send(Events::Objects::Base* event) = 0;

 protected:
  ~IStorageSender() = default;
};

}  // namespace Tarn::Comm::Interface
