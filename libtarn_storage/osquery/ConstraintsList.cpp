#include "osquery/ConstraintsList.h"

#include <cstring>
#include <string>
#include <utility>

#include "Keel/Log.h"
#include "Keel/Utils/TreeContainer.h"
#include "osquery/NameHash.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNotJson = 1,
  kNotAnObject = 2,
  kBadColumn = 3,      // a = column hash
  kBadOperator = 4,    // a = column hash, b = operator
  kBadExpression = 5,  // a = column hash
  kBadValue = 6,       // a = column hash, b = affinity
};

using Node = Keel::Utils::TreeContainer::Node;

bool IsBlank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

bool Reject(uint32_t message, uint64_t a, uint64_t b) {
  KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, message, a, b, 0);
  return false;
}

// Appends the constraints of one column's {"affinity", "list"} object.
bool ParseColumn(uint32_t hash, Node column, std::vector<Constraint>& out) {
  std::string affinity_name;
  Node list = column.Child("list");
  if (!column.IsObject() || !column.Child("affinity").GetString(affinity_name) ||
      !list.IsArray()) {
    return Reject(kBadColumn, hash, 0);
  }
  Affinity affinity = AffinityFromName(affinity_name);
  for (uint64_t i = 0; i < list.Size(); ++i) {
    Node element = list.At(i);
    uint64_t op = ~uint64_t{0};  // a missing or non-numeric code is no operator
    element.Child("op").GetUInt64(op);
    if (!IsOperatorCode(op)) return Reject(kBadOperator, hash, op);
    std::string expr;
    if (!element.Child("expr").GetString(expr)) return Reject(kBadExpression, hash, 0);
    Constraint constraint(hash, static_cast<uint8_t>(op), std::move(expr), affinity);
    if (!constraint.ParseValue()) return Reject(kBadValue, hash, affinity);
    out.push_back(std::move(constraint));
  }
  return true;
}

}  // namespace

void ConstraintsList::Clear() {
  items_.clear();
  names_.reset();
}

bool ConstraintsList::Parse(std::string_view text) {
  Clear();
  if (IsBlank(text)) return true;
  // A column named twice keeps both of its lists: every constraint holds.
  Keel::Utils::TreeContainer document;
  if (!document.Parse(text, Keel::Utils::TreeContainer::RepeatedKeys::kKeepAll)) {
    return Reject(kNotJson, text.size(), 0);
  }
  Node root = document.Root();
  if (!root.IsObject()) return Reject(kNotAnObject, 0, 0);

  // Names are gathered first and get their final home once all parsed, so
  // each constraint's view is set exactly once.
  std::vector<Constraint> items;
  std::vector<std::pair<size_t, size_t>> name_spans;  // offset and length in `names`
  std::string names;
  for (uint64_t i = 0; i < root.Size(); ++i) {
    std::string_view name;
    root.KeyAt(i, name);
    if (!ParseColumn(NameHash(name), root.At(i), items)) return false;
    name_spans.resize(items.size(), {names.size(), name.size()});
    names.append(name);
  }

  names_ = std::make_unique<char[]>(names.size() + 1);
  std::memcpy(names_.get(), names.data(), names.size());
  for (size_t k = 0; k < items.size(); ++k) {
    items[k].column_name = std::string_view(names_.get() + name_spans[k].first,
                                            name_spans[k].second);
  }
  items_ = std::move(items);
  return true;
}

}  // namespace Tarn::Storage::OSQuery
