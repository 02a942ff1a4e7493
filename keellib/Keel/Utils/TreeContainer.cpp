#include "Keel/Utils/TreeContainer.h"

#include <limits>
#include <new>
#include <string>
#include <vector>
#include <nlohmann/json.hpp>

#include "Keel/Log.h"

namespace Keel::Utils {
namespace {

// Keel::Log::Utils identifiers of this file.
enum Message : uint32_t {
  kParseFailed = 10,
  kLibraryError = 11,
  kInvalidNode = 12,
  kNotAContainer = 13,
};

using Json = nlohmann::ordered_json;

Json* AsJson(void* value) { return static_cast<Json*>(value); }

Json* FindMember(Json* object, std::string_view key) {
  if (object == nullptr || !object->is_object()) return nullptr;
  for (auto& member : object->get_ref<Json::object_t&>()) {
    if (member.first == key) return &member.second;
  }
  return nullptr;
}

// Runs one change to the document, turning the library's exceptions (only
// allocation can fail once types are checked) into a logged false.
template <typename Change>
bool Modify(void* value, Change&& change) {
  if (value == nullptr) {
    KEEL_LOG(Log::Error, Log::Utils, kInvalidNode, 0, 0, 0);
    return false;
  }
  try {
    change(*AsJson(value));
    return true;
  } catch (const std::exception&) {
    KEEL_LOG(Log::Error, Log::Utils, kLibraryError, AsJson(value)->type(), 0, 0);
    return false;
  }
}

}  // namespace

struct TreeContainer::Document {
  Json root;
};

// ---- Node: queries ---------------------------------------------------------

bool TreeContainer::Node::IsNull() const { return value_ && AsJson(value_)->is_null(); }
bool TreeContainer::Node::IsObject() const { return value_ && AsJson(value_)->is_object(); }
bool TreeContainer::Node::IsArray() const { return value_ && AsJson(value_)->is_array(); }
bool TreeContainer::Node::IsString() const { return value_ && AsJson(value_)->is_string(); }
bool TreeContainer::Node::IsBool() const { return value_ && AsJson(value_)->is_boolean(); }
bool TreeContainer::Node::IsNumber() const { return value_ && AsJson(value_)->is_number(); }

bool TreeContainer::Node::IsInteger() const {
  return value_ && AsJson(value_)->is_number_integer();
}

bool TreeContainer::Node::IsUnsigned() const {
  uint64_t unused;
  return GetUInt64(unused);
}

uint64_t TreeContainer::Node::Size() const {
  const Json* json = AsJson(value_);
  if (json == nullptr || !(json->is_array() || json->is_object())) return 0;
  return json->size();
}

TreeContainer::Node TreeContainer::Node::At(uint64_t index) const {
  Json* json = AsJson(value_);
  if (index >= Size()) return Node();
  if (json->is_array()) return Node(&(*json)[index]);
  return Node(&(json->get_ref<Json::object_t&>().begin() + index)->second);
}

bool TreeContainer::Node::KeyAt(uint64_t index, std::string_view& key) const {
  if (!IsObject() || index >= Size()) return false;
  key = (AsJson(value_)->get_ref<Json::object_t&>().begin() + index)->first;
  return true;
}

bool TreeContainer::Node::Has(std::string_view key) const {
  return FindMember(AsJson(value_), key) != nullptr;
}

TreeContainer::Node TreeContainer::Node::Child(std::string_view key) const {
  return Node(FindMember(AsJson(value_), key));
}

// ---- Node: getters ---------------------------------------------------------

bool TreeContainer::Node::GetString(std::string& out) const {
  if (!IsString()) return false;
  try {
    out = AsJson(value_)->get_ref<const std::string&>();
  } catch (const std::exception&) {
    KEEL_LOG(Log::Error, Log::Utils, kLibraryError, 0, 0, 0);
    return false;
  }
  return true;
}

bool TreeContainer::Node::GetString(String& out) const {
  if (!IsString()) return false;
  return out.Assign(AsJson(value_)->get_ref<const std::string&>());
}

bool TreeContainer::Node::GetUInt64(uint64_t& out) const {
  const Json* json = AsJson(value_);
  if (json == nullptr) return false;
  if (json->is_number_unsigned()) {
    out = json->get<uint64_t>();
    return true;
  }
  if (json->is_number_integer() && json->get<int64_t>() >= 0) {
    out = static_cast<uint64_t>(json->get<int64_t>());
    return true;
  }
  return false;
}

bool TreeContainer::Node::GetInt64(int64_t& out) const {
  const Json* json = AsJson(value_);
  if (json == nullptr) return false;
  if (json->is_number_unsigned()) {
    uint64_t value = json->get<uint64_t>();
    if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
    out = static_cast<int64_t>(value);
    return true;
  }
  if (!json->is_number_integer()) return false;
  out = json->get<int64_t>();
  return true;
}

bool TreeContainer::Node::GetDouble(double& out) const {
  if (!IsNumber()) return false;
  out = AsJson(value_)->get<double>();
  return true;
}

bool TreeContainer::Node::GetBool(bool& out) const {
  if (!IsBool()) return false;
  out = AsJson(value_)->get<bool>();
  return true;
}

// ---- Node: setters ---------------------------------------------------------

bool TreeContainer::Node::SetString(std::string_view value) {
  return Modify(value_, [&](Json& json) { json = std::string(value); });
}

bool TreeContainer::Node::SetUInt64(uint64_t value) {
  return Modify(value_, [&](Json& json) { json = value; });
}

bool TreeContainer::Node::SetInt64(int64_t value) {
  return Modify(value_, [&](Json& json) { json = value; });
}

bool TreeContainer::Node::SetDouble(double value) {
  return Modify(value_, [&](Json& json) { json = value; });
}

bool TreeContainer::Node::SetBool(bool value) {
  return Modify(value_, [&](Json& json) { json = value; });
}

bool TreeContainer::Node::SetNull() {
  return Modify(value_, [](Json& json) { json = nullptr; });
}

bool TreeContainer::Node::SetObject() {
  return Modify(value_, [](Json& json) { json = Json::object(); });
}

bool TreeContainer::Node::SetArray() {
  return Modify(value_, [](Json& json) { json = Json::array(); });
}

TreeContainer::Node TreeContainer::Node::InsertChild(std::string_view key) {
  if (Json* existing = FindMember(AsJson(value_), key)) return Node(existing);
  if (value_ != nullptr && !IsNull() && !IsObject()) {
    KEEL_LOG(Log::Error, Log::Utils, kNotAContainer, AsJson(value_)->type(), 0, 0);
    return Node();
  }
  Json* child = nullptr;
  bool ok = Modify(value_, [&](Json& json) {
    if (json.is_null()) json = Json::object();
    auto& members = json.get_ref<Json::object_t&>();
    child = &members.emplace(std::string(key), nullptr).first->second;
  });
  return ok ? Node(child) : Node();
}

TreeContainer::Node TreeContainer::Node::AppendChild() {
  if (value_ != nullptr && !IsNull() && !IsArray()) {
    KEEL_LOG(Log::Error, Log::Utils, kNotAContainer, AsJson(value_)->type(), 1, 0);
    return Node();
  }
  Json* child = nullptr;
  bool ok = Modify(value_, [&](Json& json) {
    if (json.is_null()) json = Json::array();
    child = &json.emplace_back(nullptr);
  });
  return ok ? Node(child) : Node();
}

std::string TreeContainer::Node::Dump(int indent) const {
  if (value_ == nullptr) return std::string();
  try {
    return AsJson(value_)->dump(indent, ' ', false, Json::error_handler_t::replace);
  } catch (const std::exception&) {
    KEEL_LOG(Log::Error, Log::Utils, kLibraryError, AsJson(value_)->type(), 0, 0);
    return std::string();
  }
}

// ---- TreeContainer ---------------------------------------------------------

TreeContainer::TreeContainer() : document_(new (std::nothrow) Document()) {
  if (document_) root_ = Node(&document_->root);
}

TreeContainer::~TreeContainer() = default;

TreeContainer::TreeContainer(TreeContainer&& other) noexcept
    : document_(std::move(other.document_)), root_(other.root_) {
  other.root_ = Node();
}

TreeContainer& TreeContainer::operator=(TreeContainer&& other) noexcept {
  if (this == &other) return *this;
  document_ = std::move(other.document_);
  root_ = other.root_;
  other.root_ = Node();
  return *this;
}

namespace {

// Builds the document from the parser's events, keeping every member of
// an object even when its key repeats.
class KeepingBuilder {
 public:
  Json root;

  bool null() { return Put(Json(nullptr)); }
  bool boolean(bool v) { return Put(Json(v)); }
  bool number_integer(Json::number_integer_t v) { return Put(Json(v)); }
  bool number_unsigned(Json::number_unsigned_t v) { return Put(Json(v)); }
  bool number_float(Json::number_float_t v, const Json::string_t&) { return Put(Json(v)); }
  bool string(Json::string_t& v) { return Put(Json(v)); }
  bool binary(Json::binary_t& v) { return Put(Json::binary(v)); }
  bool start_object(std::size_t) { return Open(Json::object()); }
  bool start_array(std::size_t) { return Open(Json::array()); }
  bool key(Json::string_t& k) {
    keys_.back() = k;
    return true;
  }
  bool end_object() { return Close(); }
  bool end_array() { return Close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }

 private:
  // Containers being built, and the key each awaits (objects only).
  std::vector<Json> open_;
  std::vector<std::string> keys_;

  bool Open(Json container) {
    open_.push_back(std::move(container));
    keys_.emplace_back();
    return true;
  }
  bool Close() {
    Json done = std::move(open_.back());
    open_.pop_back();
    keys_.pop_back();
    return Put(std::move(done));
  }
  bool Put(Json value) {
    if (open_.empty()) {
      root = std::move(value);
      return true;
    }
    Json& parent = open_.back();
    if (parent.is_array()) {
      parent.push_back(std::move(value));
      return true;
    }
    // The ordered object is a vector of members underneath: appending to it
    // keeps a repeated key as a member of its own.
    using Members = Json::object_t::Container;
    static_cast<Members&>(parent.get_ref<Json::object_t&>())
        .emplace_back(keys_.back(), std::move(value));
    return true;
  }
};

}  // namespace

bool TreeContainer::Parse(std::string_view text, RepeatedKeys repeated) {
  try {
    Json parsed;
    if (repeated == RepeatedKeys::kKeepAll) {
      KeepingBuilder builder;
      if (Json::sax_parse(text.begin(), text.end(), &builder)) {
        parsed = std::move(builder.root);
      } else {
        parsed = Json(Json::value_t::discarded);
      }
    } else {
      parsed = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    }
    if (parsed.is_discarded()) {
      KEEL_LOG(Log::Warning, Log::Utils, kParseFailed, text.size(), 0, 0);
      return false;
    }
    if (!document_) {
      document_.reset(new Document());
      root_ = Node(&document_->root);
    }
    document_->root = std::move(parsed);
  } catch (const std::exception&) {
    KEEL_LOG(Log::Error, Log::Utils, kLibraryError, text.size(), 0, 0);
    return false;
  }
  return true;
}

}  // namespace Keel::Utils
