#pragma once

#include <stdexcept>

namespace Tarn::Storage::OSQuery {

// A query that cannot be run at all. It leaves the scan to whoever called
// HandleOSQuery, which answers it with status 5; it never leaves the module.
class QueryException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;

  static constexpr const char* kUnknownTable = "unknown table requested";
  static constexpr const char* kBadConstraints = "failed to parse constraints";
  static constexpr const char* kNoBuffer = "failed to create buffer";
};

}  // namespace Tarn::Storage::OSQuery
