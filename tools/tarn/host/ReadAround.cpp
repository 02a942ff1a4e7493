#include "tarn/host/ReadAround.h"

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "Keel/OS/Path.h"
#include "Keel/OS/Time.h"
#include "Keel/Utils/String.h"
#include "Tarn/Comm/IEventStorage.h"
#include "Tarn/Events/EventHeader.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "manager/index/Index.h"
#include "manager/index/RawIterator.h"
#include "manager/index/TimeIndex.h"
#include "osquery/Columns.h"
#include "osquery/ConstraintsList.h"
#include "osquery/Converter.h"
#include "osquery/Matcher.h"
#include "osquery/ResponseBuffer.h"
#include "osquery/Tables.h"
#include "osquery/TimeRange.h"

namespace Tarn::Tool {
namespace {

using Comm::Interface::IEventStorage;
using Storage::RawIterator;
constexpr uint64_t kNone = RawIterator::Invalid;

// The store's log record of a scan that met a block it could not read; its
// first value is the position.
constexpr uint32_t kScanBlockUnavailable = 132;
// date_time operators: "<" ends the range one second before the value's,
// ">" starts it one second after.
constexpr int kLess = 16;
constexpr int kGreater = 4;
// How many unreadable blocks one answer reads around.
constexpr int kMaxDepth = 32;

// A row with the position of its event.
struct Row {
  std::string bytes;
  uint64_t position;
};

// One block as the index names it: the position of its first event and the
// seconds (since 1970) of its first and last.
struct BlockSpan {
  uint64_t key;
  uint64_t first;
  uint64_t last;
};

// The store's blocks in store order, from its index file (saved after every
// block the store writes, so it names what the running store names).
std::vector<BlockSpan> IndexedBlocks(const std::string& store) {
  std::vector<BlockSpan> blocks;
  Storage::Index index;
  Storage::Settings settings = Storage::Settings::default_();
  Keel::Utils::String path(Keel::OS::Path::Join(store, Storage::Index::FILENAME));
  if (!index.try_load_existing(settings, path)) return blocks;
  index.tree().Iterate(
      [&blocks](const uint16_t& day, Storage::DayInfo& info, void*, bool&) {
        for (uint32_t b = 0; b < info.GetBlockCount(); ++b) {
          const Storage::BlockInfo& block = *info.GetBlock(b);
          blocks.push_back({RawIterator(day, b, 0), Storage::ToEpochSeconds(day, block.start_seconds),
                            Storage::ToEpochSeconds(day, block.end_seconds)});
        }
        return true;
      },
      nullptr);
  return blocks;
}

// The constraints with one more date_time term.
std::string WithTimeTerm(const std::string& constraints, int op, uint64_t second) {
  nlohmann::json object = constraints.empty() ? nlohmann::json::object()
                                              : nlohmann::json::parse(constraints, nullptr, false);
  if (!object.is_object()) return constraints;  // the store refuses it either way
  nlohmann::json& date_time = object["date_time"];
  if (!date_time.is_object()) date_time = {{"affinity", "bigint"}, {"list", nlohmann::json::array()}};
  date_time["list"].push_back({{"op", op}, {"expr", std::to_string(second * 1000)}});
  return object.dump();
}

// Where a query met a block it could not read: inside its range (its scan),
// or at either end (finding where its range starts or ends).
enum class Edge { kInside, kStart, kEnd };

struct Culprit {
  size_t block = 0;  // in `blocks`
  Edge edge = Edge::kInside;
};

bool Readable(IEventStorage& storage, uint64_t key) {
  Events::GenericEventHolder holder;
  return storage.GetEvent(key, &holder);
}

std::optional<Culprit> FindCulprit(IEventStorage& storage, const std::vector<BlockSpan>& blocks,
                                   const QueryRequest& request, const QueryAnswer& answer) {
  auto at = [&blocks](uint64_t key) -> std::optional<size_t> {
    for (size_t i = 0; i < blocks.size(); ++i) {
      if (blocks[i].key == key) return i;
    }
    return std::nullopt;
  };
  for (const Keel::Log::Record& r : answer.problems) {
    if (r.component != Keel::Log::StorageQuery || r.message != kScanBlockUnavailable) continue;
    if (std::optional<size_t> i = at(RawIterator(r.values[0]).AsKey())) {
      return Culprit{*i, Edge::kInside};
    }
  }
  // No scan met it: finding an end of the range did, in the block that holds it.
  Storage::OSQuery::ConstraintsList constraints;
  Storage::OSQuery::TimeRange range;
  if (blocks.empty() || !constraints.Parse(request.constraints) ||
      Storage::OSQuery::NarrowTimeRange(constraints, range) != Storage::OSQuery::kStatusComplete) {
    return std::nullopt;
  }
  size_t start = 0;
  while (start < blocks.size() && blocks[start].last < range.lower) ++start;
  if (start < blocks.size() && !Readable(storage, blocks[start].key)) {
    return Culprit{start, Edge::kStart};
  }
  size_t end = blocks.size();
  while (end > 0 && blocks[end - 1].first > range.upper) --end;
  if (end > 0 && !Readable(storage, blocks[end - 1].key)) return Culprit{end - 1, Edge::kEnd};
  return std::nullopt;
}

// The rows of `request` among the events of `second` from position `from`
// on and before `until` (a block's first position; none: the end), made
// as the store's scan makes them.
void RowsAt(IEventStorage& storage, const QueryRequest& request, uint64_t second, uint64_t from,
            uint64_t until, std::vector<Row>& rows) {
  using namespace Storage::OSQuery;
  const uint32_t type = TableIdByName(request.table);
  ConstraintsList constraints;
  TimeRange range;
  if (type == 0 || !constraints.Parse(request.constraints) ||
      NarrowTimeRange(constraints, range) != kStatusComplete || second > range.upper ||
      (request.token == QueryRequest::kNoToken && second < range.lower)) {
    return;
  }
  const ColumnSelection columns = SplitColumns(request.columns);
  google::protobuf::Arena arena;
  Events::GenericEventHolder holder;
  for (uint64_t at = from; storage.IsValid(at) && (until == kNone || storage.Compare(at, until) < 0);
       storage.Increment(at)) {
    Keel::OS::DateTime time;
    if (!storage.GetTime(at, time)) continue;
    if (static_cast<uint64_t>(time.ToSecondsSinceEpoch()) != second) break;
    if (request.token != QueryRequest::kNoToken && storage.Compare(at, request.token) < 0) continue;
    if (!storage.GetEvent(at, &holder)) continue;
    const Events::Objects::Base event = holder.Event();
    if (event.TypeId() != type ||
        !IsSupportedVersion(type, Events::EventHeader(event.Data(), event.Size()).Version()) ||
        !MatchEvent(event, constraints)) {
      continue;
    }
    if (const google::protobuf::Message* row = ConvertEvent(&arena, event, columns)) {
      rows.push_back({row->SerializeAsString(), at});
    }
  }
}

// An answer of `rows`, partial with a token at `next` unless that is none.
void Compose(const std::vector<Row>& rows, uint64_t next, const QueryRequest& request,
             QueryAnswer& answer) {
  answer = QueryAnswer();
  answer.handled = true;
  answer.has_token = next != kNone;
  answer.status = answer.has_token ? QueryAnswer::kPartial : QueryAnswer::kComplete;
  answer.next_token = next;
  answer.next_page = static_cast<uint16_t>(request.page + 1);
  for (const Row& row : rows) answer.events += row.bytes;
  answer.row_count = static_cast<uint32_t>(rows.size());
  size_t at = 0;
  for (const Row& row : rows) {
    answer.rows.emplace_back(answer.events.data() + at, row.bytes.size());
    if (request.with_positions) answer.positions.push_back(row.position);
    at += row.bytes.size();
  }
}

// The rows of an answer, with their positions when it has them.
void TakeRows(const QueryAnswer& answer, std::vector<Row>& rows) {
  for (size_t i = 0; i < answer.rows.size(); ++i) {
    rows.push_back({std::string(answer.rows[i]),
                    i < answer.positions.size() ? answer.positions[i] : kNone});
  }
}

// `rows` ahead of the answer's own.
void Prepend(std::vector<Row> rows, const QueryRequest& request, QueryAnswer& answer) {
  if (rows.empty()) return;
  TakeRows(answer, rows);
  const bool more = answer.status == QueryAnswer::kPartial && answer.has_token;
  const uint64_t next = more ? answer.next_token : kNone;
  const uint16_t page = answer.next_page;
  Compose(rows, next, request, answer);
  if (more) answer.next_page = page;
}

// Whether an answer says there is nothing in the range: a contradiction,
// the default range, or a range outside the store.
bool Empty(const QueryAnswer& answer) {
  return answer.status == 4 || answer.status == 6 || answer.status == 7;
}

}  // namespace

bool ReadAround(QueryClient& client, IEventStorage& storage, const std::string& store,
                const QueryRequest& request, QueryAnswer& answer, std::string& error) {
  // Each piece reads around the next unreadable block it meets. A store whose
  // blocks do not follow one another in time (written before its writer kept
  // a day's seconds from going back) could send a piece back to the same
  // block: past this depth the store's answer stands.
  static thread_local int depth = 0;
  if (depth >= kMaxDepth) return true;
  struct Nested {
    Nested() { ++depth; }
    ~Nested() { --depth; }
  } nested;
  const std::vector<BlockSpan> blocks = IndexedBlocks(store);
  const std::optional<Culprit> culprit = FindCulprit(storage, blocks, request, answer);
  if (!culprit) return true;  // not a block: the status stands
  const BlockSpan& block = blocks[culprit->block];
  client.NoteUnreadableBlock(block.key);
  const bool token_past =
      request.token != QueryRequest::kNoToken && storage.Compare(request.token, block.key) >= 0;
  uint64_t after = block.key;
  while (storage.IsValid(after) && RawIterator(after).AsKey() == block.key) storage.Increment(after);

  std::vector<Row> rows;
  if (culprit->edge == Edge::kStart) {
    // The range is asked again from the second after the block's last; the
    // events of that second past the block are read here.
    if (!token_past) RowsAt(storage, request, block.last, after, kNone, rows);
    QueryRequest raised = request;
    raised.constraints = WithTimeTerm(request.constraints, kGreater, block.last);
    if (!token_past) raised.token = QueryRequest::kNoToken;
    if (!client.AskAround(raised, answer, error)) return false;
    if (Empty(answer)) Compose({}, kNone, request, answer);
    if (answer.HasRows()) Prepend(std::move(rows), request, answer);
    return true;
  }
  // Before the block: the range ends one second before the last second of
  // the block ahead, whose events of that second are read here.
  if (!token_past && culprit->block > 0) {
    const uint64_t second = blocks[culprit->block - 1].last;
    QueryRequest ahead = request;
    ahead.constraints = WithTimeTerm(request.constraints, kLess, second);
    if (!client.AskAround(ahead, answer, error)) return false;
    // A next page is asked with the whole query, which comes back here.
    if (answer.status == QueryAnswer::kPartial && answer.has_token) return true;
    if (!answer.HasRows() && !Empty(answer)) return true;  // a limit: the caller says
    TakeRows(answer, rows);
    const uint64_t from = storage.GetIterVal(Keel::OS::DateTime(static_cast<int64_t>(second)),
                                             Comm::Interface::AtOrAfter);
    RowsAt(storage, request, second, from, block.key, rows);
  }
  // After it: the rest of the range, from the first event past the block.
  Compose(rows, culprit->edge == Edge::kEnd ? kNone : after, request, answer);
  return true;
}

}  // namespace Tarn::Tool
