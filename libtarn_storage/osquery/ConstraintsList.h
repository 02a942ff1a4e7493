#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "osquery/Constraint.h"

namespace Tarn::Storage::OSQuery {

// The filters of one query, all joined by AND. Owns its constraints and the
// column names they view; moving the list keeps those views valid.
class ConstraintsList {
 public:
  // Walks the constraints for which its predicate holds. It is its own
  // range: `for (const Constraint& c : list.ForField(hash))`.
  class Iterator {
   public:
    using Predicate = std::function<bool(const Constraint&)>;

    Iterator(const Constraint* position, const Constraint* last, Predicate predicate)
        : position_(position), last_(last), predicate_(std::move(predicate)) {
      Skip();
    }

    const Constraint& operator*() const { return *position_; }
    const Constraint* operator->() const { return position_; }
    Iterator& operator++() {
      ++position_;
      Skip();
      return *this;
    }
    bool operator==(const Iterator& other) const { return position_ == other.position_; }

    Iterator begin() const { return *this; }
    // The end of this iterator's walk.
    Iterator end() const { return Iterator(last_, last_, nullptr); }

   private:
    void Skip() {
      while (position_ != last_ && predicate_ && !predicate_(*position_)) ++position_;
    }

    const Constraint* position_;
    const Constraint* last_;
    Predicate predicate_;
  };

  ConstraintsList() = default;
  ConstraintsList(ConstraintsList&&) = default;
  ConstraintsList& operator=(ConstraintsList&&) = default;
  ConstraintsList(const ConstraintsList&) = delete;
  ConstraintsList& operator=(const ConstraintsList&) = delete;

  // Replaces the list with the constraints of a query's JSON text: an object
  // whose members are column names, each {"affinity": text, "list": [{"op":
  // code, "expr": text}, ...]}. Fails as a whole (false, logged, the list
  // left empty) when the text is not such an object, an operator is not one
  // of the ten codes, or a value does not parse for its affinity: a filter
  // is never dropped. An empty text means no filter.
  bool Parse(std::string_view text);

  // Appends a constraint built by the caller; its column name, if any, must
  // outlive the list.
  void Add(Constraint constraint) { items_.push_back(std::move(constraint)); }
  void Clear();

  Iterator begin() const { return Iterator(First(), Last(), nullptr); }
  Iterator end() const { return Iterator(Last(), Last(), nullptr); }
  Iterator ForField(uint32_t hash) const {
    return Iterator(First(), Last(), [hash](const Constraint& c) { return c.column_hash == hash; });
  }

  // The plain sequence, for matchers that look at every constraint.
  std::span<const Constraint> Items() const { return items_; }
  size_t Size() const { return items_.size(); }
  bool Empty() const { return items_.empty(); }

 private:
  const Constraint* First() const { return items_.data(); }
  const Constraint* Last() const { return items_.data() + items_.size(); }

  std::vector<Constraint> items_;
  std::unique_ptr<char[]> names_;  // the parsed column names, one after another
};

}  // namespace Tarn::Storage::OSQuery
