#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "Keel/Log.h"

namespace tarn::test {

// Installs a log callback for its lifetime and keeps every record written.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Keel::Log::Record> Records() const;
  size_t Count(uint32_t severity) const;
  size_t CountFrom(uint32_t component, uint32_t severity) const;
  bool Empty() const { return Records().empty(); }
  void Clear();

 private:
  static void OnRecord(const Keel::Log::Record& record, void* context);

  mutable std::mutex mutex_;
  std::vector<Keel::Log::Record> records_;
};

}  // namespace tarn::test
