#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Keel/Log.h"
#include "tarn/host/ModuleHost.h"

namespace google::protobuf {
class Message;
}

namespace Tarn::Tool {

// The store's limits on one answer. On a person's own machine a query
// should not stop at a limit sized for an agent, so SQL sets the widest the
// store accepts where no limit is given.
struct QueryLimits {
  std::optional<uint32_t> size_limit;  // bytes of one answer
  std::optional<uint32_t> row_limit;   // rows of one answer
  std::optional<uint32_t> aux_limit;   // pages one query may take
};

// Checks the limits against the store's bounds; false with `error` in words.
bool CheckQueryLimits(const QueryLimits& limits, std::string& error);

struct QueryRequest {
  static constexpr uint64_t kNoToken = ~uint64_t{0};

  std::string table;        // "edr_process_create"
  std::string columns;      // comma-separated; empty: every column
  std::string constraints;  // constraints JSON; empty: none
  uint64_t token = kNoToken;  // position to resume from
  uint16_t page = 0;          // continuation requests made so far
  // Asks for each row's store position as well (QueryAnswer::positions).
  bool with_positions = false;
};

// One answer as the module wrote it into the requester's message.
struct QueryAnswer {
  static constexpr uint32_t kComplete = 0;
  static constexpr uint32_t kPartial = 8;

  bool handled = false;  // what HandleEvent returned
  uint32_t status = 0;
  uint32_t row_count = 0;
  bool has_token = false;
  uint16_t next_page = 0;  // the page and position to send back for the rest
  uint64_t next_token = QueryRequest::kNoToken;
  std::string events;                  // the answer's bytes
  std::vector<std::string_view> rows;  // each one serialized row, viewing `events`
  // Each row's store position, when the request asked for them
  // (QueryRequest::with_positions): what names the event.
  std::vector<uint64_t> positions;
  // What the store logged while it answered (warnings and worse), and
  // whether the request named a token: what Explain reads.
  std::vector<Keel::Log::Record> problems;
  bool asked_with_token = false;

  // The rows are usable: all of them (0), or the first part (8, a token).
  bool HasRows() const { return status == kComplete || (status == kPartial && has_token); }
};

// What the queries of one run cost.
struct QueryStats {
  uint64_t queries = 0;  // first pages asked for
  uint64_t answers = 0;  // pages received, continuations included
  uint64_t rows = 0;
  uint64_t answer_bytes = 0;
};

// Asks the loaded module table queries as a requester on the message bus
// does, from any thread: a type-221 record through HandleEvent, with the requester's
// hx::MessageBus::Msg carried by ExternalData; the answer comes back in its
// fields "events" and "token".
class QueryClient {
 public:
  explicit QueryClient(ModuleHost& host) : host_(host) {}

  // Gives the store `limits` through Reconfigure; unset ones the widest the
  // store accepts when `widest`, else the store's defaults.
  bool ApplyLimits(const QueryLimits& limits, bool widest, std::string& error);
  uint32_t row_limit() const { return row_limit_; }
  uint32_t aux_limit() const { return aux_limit_; }
  uint32_t size_limit() const { return size_limit_; }

  // Sends one query. False with `error` when the module sent no answer or
  // one that does not parse; a status that is not an answer is not a
  // failure here (see Explain).
  bool Ask(const QueryRequest& request, QueryAnswer& answer, std::string& error);
  // As Ask, but a range that holds a block the store cannot read is read
  // around it (see ReadAround.h): the answer holds every other row, and the
  // block is noted for UnreadableBlocks.
  bool AskAround(const QueryRequest& request, QueryAnswer& answer, std::string& error);

  // The blocks (day and block bits of a position) queries were read around.
  std::set<uint64_t> UnreadableBlocks() const;
  void NoteUnreadableBlock(uint64_t block);

  // What the status of an answer other than 0 and 8 means and what to do
  // about it, in words for the person who asked: read from the answer's own
  // log records, whatever other threads asked meanwhile.
  std::string Explain(const QueryAnswer& answer) const;

  QueryStats stats() const;

 private:
  ModuleHost& host_;
  uint32_t size_limit_ = 0;
  uint32_t row_limit_ = 0;
  uint32_t aux_limit_ = 0;
  // Ask runs on several threads at once (the module answers queries
  // concurrently); this mutex guards what they share, and nothing else.
  mutable std::mutex mutex_;
  QueryStats stats_;
  std::set<uint64_t> unreadable_blocks_;
};

// Reads rows of one table into its generated message.
class RowReader {
 public:
  RowReader() = default;
  ~RowReader();
  RowReader(const RowReader&) = delete;
  RowReader& operator=(const RowReader&) = delete;

  // False when there is no such table.
  bool Open(std::string_view table);
  // False when the bytes are not a row of the table.
  bool Parse(std::string_view bytes);
  const google::protobuf::Message& row() const { return *row_; }

 private:
  std::unique_ptr<google::protobuf::Message> row_;
};

}  // namespace Tarn::Tool
