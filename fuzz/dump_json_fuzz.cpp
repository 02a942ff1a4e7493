// Arbitrary bytes as a file of the evtx dump tools' JSON: its values are
// split one after another, each is flattened into the fields the mapping
// reads and made into rows. A flattened event written back in the dump
// form must flatten to the same fields: nothing the reader keeps depends on
// how the document spelled it.

#include <cstdint>
#include <string_view>

#include "tarn/import/JsonValues.h"
#include "tarn/import/WindowsDocuments.h"
#include "windows_fuzz.h"

namespace {

using Json = nlohmann::json;

// The System fields a flat event may hold and where the dump form keeps them.
Json AsDump(const Json& fields) {
  Json system = Json::object();
  Json data = Json::object();
  for (const auto& item : fields.items()) {
    const std::string& key = item.key();
    if (key == "Provider") {
      system["Provider"]["#attributes"]["Name"] = item.value();
    } else if (key == "TimeCreated") {
      system["TimeCreated"]["#attributes"]["SystemTime"] = item.value();
    } else if (key == "Channel" || key == "EventID" || key == "Computer" ||
               key == "EventRecordID") {
      system[key] = item.value();
    } else {
      data[key] = item.value();
    }
  }
  return {{"Event", {{"System", system}, {"EventData", data}}}};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Tarn::Tool::JsonValues values(std::string_view(reinterpret_cast<const char*>(data), size));
  std::string_view value;
  uint64_t line = 0;
  uint64_t last_line = 0;
  std::string error;
  for (int n = 0; n < 64; ++n) {
    if (!values.Next(value, line, error)) {
      if (error.empty()) break;
      continue;
    }
    TARN_FUZZ_CHECK(line >= last_line);
    last_line = line;
    TARN_FUZZ_CHECK(value.front() == '{' || value.front() == '[');
    const Json object = Json::parse(value, nullptr, false);
    Json fields;
    if (!Tarn::Tool::Windows::FlattenDumpEvent(object, fields, error)) {
      TARN_FUZZ_CHECK(!error.empty());
      continue;
    }
    tarn::fuzz::CheckFlat(fields);
    tarn::fuzz::CheckRows(fields);
    Json again;
    TARN_FUZZ_CHECK(Tarn::Tool::Windows::FlattenDumpEvent(AsDump(fields), again, error));
    TARN_FUZZ_CHECK(again == fields);
  }
  return 0;
}
