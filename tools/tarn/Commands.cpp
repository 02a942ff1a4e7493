#include "tarn/Commands.h"

#include <cstdio>
#include <filesystem>

namespace Tarn::Tool {

void PrintError(const std::string& message) {
  std::fflush(stdout);  // keep the order of what was said
  std::fprintf(stderr, "tarn: %s\n", message.c_str());
}

std::string AbsoluteStore(const std::string& store) {
  std::error_code ec;
  std::filesystem::path path = std::filesystem::absolute(store, ec);
  if (ec) return store;
  return path.lexically_normal().string();
}

}  // namespace Tarn::Tool
