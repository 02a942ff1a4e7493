// Arbitrary bytes as one record's XML as the event log library hands it
// over: refused with a reason, or flattened into the fields the mapping
// reads and made into rows. A flattened event written back as XML must
// flatten to the same fields (escapes, carriage returns and blanks kept).

#include <cstdint>
#include <string_view>

#include "tarn/import/WindowsDocuments.h"
#include "windows_fuzz.h"

namespace {

using Json = nlohmann::json;

std::string Escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\t': out += "&#9;"; break;
      case '\n': out += "&#10;"; break;
      default: out.push_back(c);
    }
  }
  return out;
}

std::string AsXml(const Json& fields) {
  std::string system;
  std::string data;
  for (const auto& item : fields.items()) {
    const std::string& key = item.key();
    const std::string value = Escaped(item.value().get<std::string>());
    if (key == "Provider") {
      system += "<Provider Name=\"" + value + "\"/>";
    } else if (key == "TimeCreated") {
      system += "<TimeCreated SystemTime=\"" + value + "\"/>";
    } else if (key == "Channel" || key == "EventID" || key == "Computer" ||
               key == "EventRecordID") {
      system += "<" + key + ">" + value + "</" + key + ">";
    } else if (key == "Data") {
      data += "<Data>" + value + "</Data>";  // one unnamed item, commas and all
    } else {
      data += "<Data Name=\"" + Escaped(key) + "\">" + value + "</Data>";
    }
  }
  return "<Event xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\"><System>" +
         system + "</System><EventData>" + data + "</EventData></Event>";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view xml(reinterpret_cast<const char*>(data), size);
  Json fields;
  std::string error;
  if (!Tarn::Tool::Windows::FlattenEventXml(xml, fields, error)) {
    TARN_FUZZ_CHECK(!error.empty());
    return 0;
  }
  tarn::fuzz::CheckFlat(fields);
  tarn::fuzz::CheckRows(fields);
  Json again;
  const std::string written = AsXml(fields);
  TARN_FUZZ_CHECK(Tarn::Tool::Windows::FlattenEventXml(written, again, error));
  TARN_FUZZ_CHECK(again == fields);
  return 0;
}
