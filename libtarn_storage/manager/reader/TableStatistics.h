#pragma once

#include <string>

namespace Tarn::Storage {

// The per-table statistics behind the reader's __dump_proto_stats. Counting
// rows needs the query side's row builders, which the reader does not link:
// the query side implements this and whoever owns both installs it in the
// reader. It is the reader's only way into the query side.
class TableStatistics {
 public:
  // Writes the statistics of every stored event as JSON to `path`; false
  // (logged) when they cannot be gathered or written.
  virtual bool DumpProtoStats(const std::string& path) = 0;

 protected:
  ~TableStatistics() = default;
};

}  // namespace Tarn::Storage
