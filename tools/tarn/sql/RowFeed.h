#pragma once

// Where a virtual table's cursor takes its rows from.
//
// A scan's rows reach a cursor by one of three routes: a query the cursor
// streams page by page, a scan the statement's workers read ahead slice by
// slice (SlicedScans), or rows kept from an earlier scan (KeptScan). Each
// route is a RowFeed, and every row comes with the store position of its
// event: the cursor's rowid, which names the same event in every scan of a
// statement (SQLite relies on that when it answers an OR term by term and
// drops the rows it has seen).

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/host/QueryClient.h"

namespace Tarn::Tool {

class KeptScan;
class SlicedScans;

// One row: the serialized row of its table, and its event's position.
struct FedRow {
  std::string_view bytes;
  uint64_t position = 0;
};

class RowFeed {
 public:
  virtual ~RowFeed() = default;
  // The next row; false at the end, or with `error` set when the rows could
  // not be had.
  virtual bool Next(FedRow& row, std::string& error) = 0;
};

// A query streamed page by page, each page asked when the one before it is
// read (with ReadAround's help where a block does not read).
std::unique_ptr<RowFeed> StreamedRows(QueryClient& client, QueryRequest request);

// Scan `scan` of the statement's workers, slice after slice; a slice no
// worker got to is streamed.
std::unique_ptr<RowFeed> SlicedRows(QueryClient& client, std::shared_ptr<SlicedScans> sliced,
                                    size_t scan);

// Kept rows: with `picked`, those numbered in [pick, pick_end) (an index of
// the kept scan, which lives as long as the feed), else the rows [first,
// last).
std::unique_ptr<RowFeed> KeptRows(std::shared_ptr<KeptScan> kept, bool picked,
                                  const uint32_t* pick, const uint32_t* pick_end, size_t first,
                                  size_t last);

}  // namespace Tarn::Tool
