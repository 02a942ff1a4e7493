// Arbitrary bytes as one line of a log shipper's JSON: the line is refused
// with a reason, or read into rows that keep the invariants of every row.

#include <cstdint>
#include <string_view>

#include "windows_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const nlohmann::json fields = nlohmann::json::parse(line, nullptr, false);
  Tarn::Tool::Windows::Event event;
  std::string error;
  const bool read = Tarn::Tool::Windows::ReadEvent(line, event, error);
  TARN_FUZZ_CHECK(read || !error.empty());
  if (fields.is_object()) tarn::fuzz::CheckRows(fields);
  return 0;
}
