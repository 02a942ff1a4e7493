#include "tarn/host/ReportSink.h"

#include <cstdio>
#include <fstream>

#include <nlohmann/json.hpp>

#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {

bool ReportSink::Send(const char* event_name, const char* json) {
  if (event_name == nullptr || json == nullptr) return false;
  nlohmann::json document = nlohmann::json::parse(json, nullptr, false);
  std::string text = document.is_discarded() ? std::string(json) : document.dump(2);
  text.push_back('\n');
  if (directory_.empty()) {
    std::printf("%s\n%s", event_name, text.c_str());
    std::fflush(stdout);
  } else {
    std::string path = directory_ + "/" + event_name + "." + std::to_string(RealNowMs()) + ".json";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.good()) return false;
    last_path_ = path;
  }
  ++sent_;
  return true;
}

}  // namespace Tarn::Tool
