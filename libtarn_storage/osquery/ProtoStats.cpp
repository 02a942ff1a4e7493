#include "osquery/ProtoStats.h"

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <vector>

#include "Keel/Log.h"
#include "Keel/OS/File.h"
#include "Keel/Utils/TreeContainer.h"
#include "Tarn/Events/EventHeader.h"
#include "manager/reader/EventStorageProvider.h"
#include "osquery/Columns.h"
#include "osquery/Converter.h"
#include "osquery/Tables.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kBlockUnavailable = 150,  // a = position
  kNotConverted = 151,      // a = type id
  kJsonFailed = 152,
  kWriteFailed = 153,
};

struct TableStats {
  uint64_t count = 0;
  uint64_t record_bytes = 0;
  uint64_t row_bytes = 0;
  uint64_t largest_row = 0;
};

struct StoreStats {
  std::vector<TableStats> tables = std::vector<TableStats>(AllTables().size());
  uint64_t events = 0;
  uint64_t without_table = 0;
};

void Count(const Events::Objects::Base& event, const ColumnSelection& all,
           google::protobuf::Arena& arena, StoreStats& stats) {
  ++stats.events;
  const uint32_t type_id = event.TypeId();
  const TableInfo* table = FindTable(type_id);
  if (table == nullptr || Events::EventHeader(event.Data(), event.Size()).Version() !=
                              table->version) {
    ++stats.without_table;
    return;
  }
  google::protobuf::Message* row = ConvertEvent(&arena, event, all);
  if (row == nullptr) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kNotConverted, type_id, 0, 0);
    ++stats.without_table;
    return;
  }
  TableStats& entry = stats.tables[table - AllTables().data()];
  const uint64_t row_bytes = row->ByteSizeLong();
  ++entry.count;
  entry.record_bytes += event.Size();
  entry.row_bytes += row_bytes;
  if (row_bytes > entry.largest_row) entry.largest_row = row_bytes;
  arena.Reset();
}

// Every event from the first to the last, a decoded block at a time.
bool Walk(EventStorageProvider& provider, StoreStats& stats) {
  const ColumnSelection all = SplitColumns("");
  google::protobuf::Arena arena;
  for (uint64_t p = provider.GetFirstIterVal(); provider.IsValid(p);) {
    const RawIterator at(p);
    BlockCache::BlockPtr block = provider.GetBlockFromCache(at);
    if (block == nullptr) {
      KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kBlockUnavailable, p, 0, 0);
      return false;
    }
    for (uint32_t i = at.Event(); i < block->EventCount(); ++i) {
      const uint8_t* record = nullptr;
      uint32_t size = 0;
      if (block->Event(i, record, size)) {
        Count(Events::Objects::Base(record, size), all, arena, stats);
      }
    }
    // From the last event a position can name: past 0xFFFFFF the event
    // number would wrap and bring the walk back into this block.
    const uint32_t named = std::min(block->EventCount(), EventStorageProvider::kEventIndexEnd);
    p = RawIterator(at.Day(), at.Block(), named == 0 ? 0 : named - 1);
    provider.Increment(p);
  }
  return true;
}

bool ToJson(const StoreStats& stats, Keel::Utils::TreeContainer& doc) {
  auto root = doc.Root();
  if (!root.Set("events", stats.events) || !root.Set("without_table", stats.without_table)) {
    return false;
  }
  auto tables = root.InsertChild("tables");
  if (!tables.SetObject()) return false;
  for (size_t i = 0; i < stats.tables.size(); ++i) {
    const TableStats& entry = stats.tables[i];
    if (entry.count == 0) continue;
    const TableInfo& table = AllTables()[i];
    auto node = tables.InsertChild(EventTypeName(table.type_id));
    if (!node.Set("table", table.name) || !node.Set("type_id", uint64_t{table.type_id}) ||
        !node.Set("count", entry.count) || !node.Set("record_bytes", entry.record_bytes) ||
        !node.Set("row_bytes", entry.row_bytes) || !node.Set("largest_row", entry.largest_row)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool DumpProtoStats(EventStorageProvider& provider, const std::string& path) {
  StoreStats stats;
  // An empty store has no first position: its statistics are all zero.
  if (provider.GetSize() != 0 && !Walk(provider, stats)) return false;
  Keel::Utils::TreeContainer doc;
  if (!ToJson(stats, doc)) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kJsonFailed, 0, 0, 0);
    return false;
  }
  const std::string text = doc.Dump(2);
  Keel::OS::File file;
  if (text.empty() || !file.Open(path, Keel::OS::File::Mode::CreateTruncate) ||
      !file.Write(text.data(), text.size()) || !file.Flush()) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kWriteFailed, text.size(), 0, 0);
    return false;
  }
  return true;
}

}  // namespace Tarn::Storage::OSQuery
