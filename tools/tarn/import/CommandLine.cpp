#include "tarn/import/CommandLine.h"

#include <algorithm>
#include <cctype>

namespace Tarn::Tool {

std::vector<uint64_t> ArgumentOffsets(std::string_view line) {
  std::vector<uint64_t> offsets;
  bool quoted = false;
  bool in_token = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    const bool blank = c == ' ' || c == '\t';
    if (!in_token && !blank) {
      offsets.push_back(i);
      in_token = true;
    }
    if (c == '"') quoted = !quoted;
    if (blank && !quoted) in_token = false;
  }
  return offsets;
}

std::string ProgramOf(std::string_view line) {
  const size_t start = line.find_first_not_of(" \t");
  if (start == std::string_view::npos) return "";
  line.remove_prefix(start);
  if (line.front() == '"') {
    const size_t end = line.find('"', 1);
    return std::string(line.substr(1, end == std::string_view::npos ? end : end - 1));
  }
  std::string lower(line);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const size_t exe = lower.find(".exe");
  if (exe != std::string::npos &&
      (exe + 4 == lower.size() || lower[exe + 4] == ' ' || lower[exe + 4] == '\t')) {
    return std::string(line.substr(0, exe + 4));
  }
  return std::string(line.substr(0, line.find_first_of(" \t")));
}

}  // namespace Tarn::Tool
