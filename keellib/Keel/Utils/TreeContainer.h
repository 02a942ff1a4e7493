#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "Keel/Export.h"
#include "Keel/Utils/String.h"

namespace Keel::Utils {

// A tree document: null, booleans, numbers (unsigned, signed, floating),
// strings, arrays and objects, read from and written as JSON. Objects keep
// their members in insertion order, so reports come out as they were built.
// Nothing throws: failures answer false or an invalid node.
class KEEL_API TreeContainer {
 public:
  // A handle on one value inside a document. It stays valid while the
  // document lives and its parent gains or loses no members: appending to an
  // array or adding a member to an object may move the siblings, so finish
  // one child before adding the next. An invalid node (a failed lookup)
  // answers false, 0 or another invalid node to everything.
  class KEEL_API Node {
   public:
    Node() = default;

    bool IsValid() const { return value_ != nullptr; }
    bool IsNull() const;
    bool IsObject() const;
    bool IsArray() const;
    bool IsString() const;
    bool IsBool() const;
    bool IsNumber() const;
    bool IsInteger() const;   // an integral number, of either sign
    bool IsUnsigned() const;  // an integral number that is not negative

    // Members of an object, or elements of an array; 0 for anything else.
    uint64_t Size() const;
    // The index-th element of an array, or value of an object's member.
    Node At(uint64_t index) const;
    // The index-th member name of an object; valid as long as this node.
    bool KeyAt(uint64_t index, std::string_view& key) const;
    bool Has(std::string_view key) const;
    Node Child(std::string_view key) const;

    // Getters fail on a type mismatch and leave `out` unchanged. Integers
    // must be integral and in range; GetDouble takes any number.
    bool GetString(std::string& out) const;
    bool GetString(String& out) const;
    bool GetUInt64(uint64_t& out) const;
    bool GetInt64(int64_t& out) const;
    bool GetDouble(double& out) const;
    bool GetBool(bool& out) const;

    // Setters replace the value, whatever it was.
    bool SetString(std::string_view value);
    bool SetUInt64(uint64_t value);
    bool SetInt64(int64_t value);
    bool SetDouble(double value);
    bool SetBool(bool value);
    bool SetNull();
    bool SetObject();  // an empty object
    bool SetArray();   // an empty array

    // The member `key`, added as null when absent. A null node becomes an
    // object first; any other non-object gives an invalid node.
    Node InsertChild(std::string_view key);
    // A new null element at the end. A null node becomes an array first;
    // any other non-array gives an invalid node.
    Node AppendChild();

    // InsertChild(key) and a setter chosen by the value's type.
    bool Set(std::string_view key, std::string_view value) {
      Node child = InsertChild(key);
      return child.IsValid() && child.SetString(value);
    }
    bool Set(std::string_view key, const char* value) {
      return Set(key, std::string_view(value != nullptr ? value : ""));
    }
    bool Set(std::string_view key, double value) {
      Node child = InsertChild(key);
      return child.IsValid() && child.SetDouble(value);
    }
    template <typename T>
    requires std::is_integral_v<T>
    bool Set(std::string_view key, T value) {
      Node child = InsertChild(key);
      if (!child.IsValid()) return false;
      if constexpr (std::is_same_v<T, bool>) {
        return child.SetBool(value);
      } else if constexpr (std::is_signed_v<T>) {
        return child.SetInt64(value);
      } else {
        return child.SetUInt64(value);
      }
    }

    // JSON text of this value; `indent` < 0 gives one line. Bytes that are
    // not UTF-8 come out as U+FFFD. Empty on failure.
    std::string Dump(int indent = -1) const;

   private:
    friend class TreeContainer;
    explicit Node(void* value) : value_(value) {}

    void* value_ = nullptr;  // the library's value type, kept out of this header
  };

  TreeContainer();  // a null document
  ~TreeContainer();
  TreeContainer(TreeContainer&& other) noexcept;
  TreeContainer& operator=(TreeContainer&& other) noexcept;
  TreeContainer(const TreeContainer&) = delete;
  TreeContainer& operator=(const TreeContainer&) = delete;

  // What a member whose key its object already holds does: replace the
  // first (as most parsers do), or stay a member of its own after it, found
  // by Size/KeyAt/At (Child finds the first). A document whose meaning is
  // the sum of its members (a list of filters, say) loses none of them.
  enum class RepeatedKeys { kLastWins, kKeepAll };

  // Replaces the document with the JSON `text`. On failure (logged) the
  // document is unchanged.
  bool Parse(std::string_view text, RepeatedKeys repeated = RepeatedKeys::kLastWins);
  std::string Dump(int indent = -1) const { return root_.Dump(indent); }
  // The top-level value. Invalid only after a failed construction or a move.
  Node Root() { return root_; }
  void Clear() { root_.SetNull(); }

 private:
  struct Document;
  std::unique_ptr<Document> document_;
  Node root_;
};

}  // namespace Keel::Utils
