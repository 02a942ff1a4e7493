#pragma once

namespace Tarn::Comm::Interfaces {

// The host's reporting channel: sends a named event whose payload is a JSON
// document. Owned by the host.
class IReport {
 public:
  virtual bool Send(const char* event_name, const char* json) = 0;

 protected:
  ~IReport() = default;
};

}  // namespace Tarn::Comm::Interfaces
