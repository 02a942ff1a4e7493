#pragma once

#include <cstdint>

namespace Tarn::Module {

class Interface;

// What the host offers a module at Initialize. Owned by the host.
class HostServices {
 public:
  // Interface ids the host answers in QueryInterface.
  static constexpr uint32_t kReportId = 22;  // Tarn::Comm::Interfaces::IReport

  // An opaque value of the host's that a module passes on as it is.
  virtual uint32_t GetHostValue() = 0;
  // The host's interface of that id, or null.
  virtual void* QueryInterface(uint32_t id) = 0;
  // Registers a started module; what `flags` and `selector` mean is the host's.
  virtual bool Register(Interface* module, uint32_t flags, uint32_t selector) = 0;

 protected:
  ~HostServices() = default;
};

}  // namespace Tarn::Module
