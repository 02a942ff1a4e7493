#include "tarn/import/WindowsDocuments.h"

#include <expat.h>

#include <cctype>
#include <memory>
#include <vector>

namespace Tarn::Tool::Windows {
namespace {

using Json = nlohmann::json;

// Deeper elements than an event has are refused: a record is attacker
// controlled and its nesting costs the reader memory.
constexpr size_t kMaxDepth = 32;

bool IsHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// 8-4-4-4-12 hexadecimal digits.
bool IsBareGuid(std::string_view text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !IsHex(text[i])) return false;
  }
  return true;
}

// One value as both forms agree to write it: no trailing blanks (the dump
// tools drop them), hexadecimal numbers without leading zeros (the library
// writes them at full width, 0x00001400, where Windows writes 0x1400).
std::string Agreed(std::string text) {
  text.erase(text.find_last_not_of(" \t\r\n") + 1);
  if (text.size() > 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && text[2] == '0') {
    bool hex = true;
    for (size_t i = 2; i < text.size() && hex; ++i) hex = IsHex(text[i]);
    if (hex) {
      const size_t first = text.find_first_not_of('0', 2);
      text.erase(2, (first == std::string::npos ? text.size() - 1 : first) - 2);
    }
  }
  return text;
}

// A record's SystemTime to the microsecond, as the dump tools write it (the
// library writes ten-millionths of a second, 10:00:35.646624200Z).
std::string AgreedTime(std::string time) {
  const size_t dot = time.find('.');
  if (dot == std::string::npos) return time;
  size_t end = dot + 1;
  while (end < time.size() && std::isdigit(static_cast<unsigned char>(time[end]))) ++end;
  if (end - dot - 1 > 6) time.erase(dot + 7, end - dot - 7);
  return time;
}

// Stores a value; empty ones are left out, as the dump tools write them null.
void Put(Json& fields, const std::string& name, std::string value) {
  value = Agreed(std::move(value));
  if (!value.empty() && !name.empty()) fields[name] = std::move(value);
}

void PutUnnamed(Json& fields, const std::vector<std::string>& items) {
  std::string joined;
  for (const std::string& item : items) joined += (joined.empty() ? "" : ",") + Agreed(item);
  if (!joined.empty()) fields["Data"] = joined;
}

// System's elements that are kept, by their text.
bool IsKeptSystemText(std::string_view name) {
  return name == "EventID" || name == "Channel" || name == "Computer" || name == "EventRecordID";
}

// ---- XML ----------------------------------------------------------------------

std::string_view LocalName(const XML_Char* name) {
  std::string_view text(name);
  const size_t colon = text.find(':');
  return colon == std::string_view::npos ? text : text.substr(colon + 1);
}

const XML_Char* Attribute(const XML_Char** attributes, std::string_view name) {
  for (size_t i = 0; attributes[i] != nullptr; i += 2) {
    if (LocalName(attributes[i]) == name) return attributes[i + 1];
  }
  return nullptr;
}

class XmlEvent {
 public:
  explicit XmlEvent(Json& fields) : fields_(fields) {}

  bool Parse(std::string_view xml, std::string& error);

 private:
  struct Open {
    std::string name;
    std::string data_name;  // an EventData item's Name attribute
    std::string text;
    bool has_children = false;
  };

  static void OnStart(void* self, const XML_Char* name, const XML_Char** attributes) {
    static_cast<XmlEvent*>(self)->Start(LocalName(name), attributes);
  }
  static void OnEnd(void* self, const XML_Char*) { static_cast<XmlEvent*>(self)->End(); }
  static void OnText(void* self, const XML_Char* text, int size) {
    auto* event = static_cast<XmlEvent*>(self);
    if (!event->open_.empty()) event->open_.back().text.append(text, static_cast<size_t>(size));
  }

  void Start(std::string_view name, const XML_Char** attributes);
  void End();
  std::string_view Section() const {
    if (open_.size() < 2) return {};
    return open_[1].name;
  }

  Json& fields_;
  std::vector<Open> open_;
  std::vector<std::string> unnamed_;
  bool too_deep_ = false;
  bool is_event_ = false;
};

void XmlEvent::Start(std::string_view name, const XML_Char** attributes) {
  if (open_.size() >= kMaxDepth) {
    too_deep_ = true;
    return;
  }
  if (!open_.empty()) open_.back().has_children = true;
  if (open_.empty()) is_event_ = name == "Event";
  open_.push_back({std::string(name), "", "", false});
  if (open_.size() == 3 && Section() == "System") {
    if (name == "Provider") {
      if (const XML_Char* value = Attribute(attributes, "Name")) Put(fields_, "Provider", value);
    } else if (name == "TimeCreated") {
      if (const XML_Char* value = Attribute(attributes, "SystemTime")) {
        Put(fields_, "TimeCreated", AgreedTime(value));
      }
    }
  }
  if (open_.size() == 3 && Section() == "EventData" && name == "Data") {
    const XML_Char* value = Attribute(attributes, "Name");
    open_.back().data_name = value == nullptr ? "" : value;
  }
}

void XmlEvent::End() {
  if (too_deep_ || open_.empty()) return;
  Open element = std::move(open_.back());
  open_.pop_back();
  const size_t depth = open_.size() + 1;
  if (depth == 3 && Section() == "System" && IsKeptSystemText(element.name)) {
    Put(fields_, element.name, std::move(element.text));
  } else if (depth == 3 && Section() == "EventData") {
    if (element.name != "Data") {
      Put(fields_, element.name, std::move(element.text));
    } else if (element.data_name.empty()) {
      unnamed_.push_back(std::move(element.text));
    } else {
      Put(fields_, element.data_name, std::move(element.text));
    }
  } else if (depth >= 4 && Section() == "UserData" && !element.has_children) {
    Put(fields_, element.name, std::move(element.text));
  }
}

bool XmlEvent::Parse(std::string_view xml, std::string& error) {
  // XML reads a carriage return in text as a line end and drops it; the
  // library writes the text as the event holds it, so a CR is a character.
  std::string escaped;
  escaped.reserve(xml.size());
  for (char c : xml) {
    if (c == '\r') {
      escaped += "&#13;";
    } else {
      escaped.push_back(c);
    }
  }
  std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate("UTF-8"),
                                                                       &XML_ParserFree);
  if (parser == nullptr) {
    error = "no memory for an XML parser";
    return false;
  }
  XML_SetUserData(parser.get(), this);
  XML_SetElementHandler(parser.get(), &XmlEvent::OnStart, &XmlEvent::OnEnd);
  XML_SetCharacterDataHandler(parser.get(), &XmlEvent::OnText);
  if (XML_Parse(parser.get(), escaped.data(), static_cast<int>(escaped.size()), 1) !=
      XML_STATUS_OK) {
    error = "not well-formed XML (" +
            std::string(XML_ErrorString(XML_GetErrorCode(parser.get()))) + " at line " +
            std::to_string(XML_GetCurrentLineNumber(parser.get())) + ")";
    return false;
  }
  if (too_deep_) {
    error = "XML nested deeper than " + std::to_string(kMaxDepth) + " elements";
    return false;
  }
  if (!is_event_) {
    error = "XML that is no <Event>";
    return false;
  }
  PutUnnamed(fields_, unnamed_);
  return true;
}

// ---- The dump tools' JSON ---------------------------------------------------------

// A value's text: strings as written, numbers as JSON writes them, an
// element with attributes by its "#text", a list item by item.
bool TextOf(const Json& value, std::string& out) {
  if (value.is_string()) {
    out = value.get_ref<const std::string&>();
    if (IsBareGuid(out)) out = "{" + out + "}";  // the dump tools drop a GUID's braces
    return true;
  }
  if (value.is_boolean()) {
    out = value.get<bool>() ? "true" : "false";
    return true;
  }
  if (value.is_number()) {
    out = value.dump();
    return true;
  }
  if (value.is_object()) {
    auto text = value.find("#text");
    return text != value.end() && TextOf(*text, out);
  }
  if (value.is_array()) {
    std::string item;
    out.clear();
    for (const Json& element : value) {
      if (!TextOf(element, item)) continue;
      out += (out.empty() ? "" : ",") + Agreed(item);
    }
    return true;
  }
  return false;
}

std::string AttributeOf(const Json& element, const char* name) {
  if (!element.is_object()) return "";
  auto attributes = element.find("#attributes");
  if (attributes == element.end() || !attributes->is_object()) return "";
  auto value = attributes->find(name);
  std::string text;
  return value != attributes->end() && TextOf(*value, text) ? text : "";
}

void PutText(Json& fields, const std::string& name, const Json& value) {
  std::string text;
  if (TextOf(value, text)) Put(fields, name, std::move(text));
}

void FlattenLeaves(const Json& element, Json& fields, size_t depth) {
  if (depth > kMaxDepth || !element.is_object()) return;
  for (const auto& item : element.items()) {
    if (item.key() == "#attributes") continue;
    const Json& value = item.value();
    if (value.is_object() && !value.contains("#text")) {
      FlattenLeaves(value, fields, depth + 1);
    } else {
      PutText(fields, item.key(), value);
    }
  }
}

}  // namespace

bool FlattenEventXml(std::string_view xml, Json& fields, std::string& error) {
  fields = Json::object();
  return XmlEvent(fields).Parse(xml, error);
}

bool IsDumpEvent(const Json& object) {
  if (!object.is_object()) return false;
  auto event = object.find("Event");
  return event != object.end() && event->is_object();
}

bool FlattenDumpEvent(const Json& object, Json& fields, std::string& error) {
  fields = Json::object();
  if (!IsDumpEvent(object) || !object["Event"].contains("System") ||
      !object["Event"]["System"].is_object()) {
    error = "no \"Event\" with a \"System\": not an event of the evtx dump tools";
    return false;
  }
  const Json& event = object["Event"];
  for (const auto& item : event["System"].items()) {
    if (item.key() == "Provider") {
      Put(fields, "Provider", AttributeOf(item.value(), "Name"));
    } else if (item.key() == "TimeCreated") {
      Put(fields, "TimeCreated", AgreedTime(AttributeOf(item.value(), "SystemTime")));
    } else if (IsKeptSystemText(item.key())) {
      PutText(fields, item.key(), item.value());
    }
  }
  if (auto data = event.find("EventData"); data != event.end() && data->is_object()) {
    for (const auto& item : data->items()) {
      if (item.key() == "#attributes") continue;
      PutText(fields, item.key(), item.value());
    }
  }
  if (auto data = event.find("UserData"); data != event.end()) FlattenLeaves(*data, fields, 1);
  return true;
}

}  // namespace Tarn::Tool::Windows
