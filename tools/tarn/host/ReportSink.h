#pragma once

#include <cstdint>
#include <string>

#include "Tarn/Comm/IReport.h"

namespace Tarn::Tool {

// The host's report channel (interface id 22): where the module's telemetry
// reports go. The tool prints each report to standard output, or writes it
// as "<name>.<milliseconds>.json" into a directory the user named.
class ReportSink final : public Comm::Interfaces::IReport {
 public:
  void SetDirectory(std::string directory) { directory_ = std::move(directory); }
  bool Send(const char* event_name, const char* json) override;

  uint32_t SentCount() const { return sent_; }
  const std::string& LastPath() const { return last_path_; }

 private:
  std::string directory_;
  std::string last_path_;
  uint32_t sent_ = 0;
};

}  // namespace Tarn::Tool
