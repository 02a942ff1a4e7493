#include "support/log_capture.h"

namespace tarn::test {

LogCapture::LogCapture() { Keel::Log::SetCallback(&LogCapture::OnRecord, this); }
LogCapture::~LogCapture() { Keel::Log::SetCallback(nullptr, nullptr); }

void LogCapture::OnRecord(const Keel::Log::Record& record, void* context) {
  auto* self = static_cast<LogCapture*>(context);
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->records_.push_back(record);
}

std::vector<Keel::Log::Record> LogCapture::Records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

size_t LogCapture::Count(uint32_t severity) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const auto& r : records_) n += r.severity == severity;
  return n;
}

size_t LogCapture::CountFrom(uint32_t component, uint32_t severity) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const auto& r : records_) n += r.component == component && r.severity == severity;
  return n;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
}

}  // namespace tarn::test
