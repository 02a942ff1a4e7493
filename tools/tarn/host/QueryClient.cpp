#include "tarn/host/QueryClient.h"

#include <google/protobuf/message.h>

#include <cstring>

#include "Keel/Log.h"
#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/ExternalData.h"
#include "Tarn/Events/QueryRecord.h"
#include "generated/RowPrototype.h"
#include "hx/MessageBus/Msg.h"
#include "manager/writer/Settings.h"
#include "module/ConfigKeys.h"
#include "osquery/ContinuationToken.h"
#include "osquery/ResponseBuffer.h"
#include "osquery/Tables.h"
#include "osquery/Columns.h"
#include "tarn/host/HostLog.h"
#include "tarn/host/ReadAround.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

namespace Bounds = Storage::SettingsBounds;
namespace Layout = Storage::OSQuery::ResponseLayout;
namespace Keys = Module::ConfigKeys;

constexpr uint32_t kWidestSize = Bounds::kMaxAnswerSize;
constexpr uint32_t kWidestRows = Bounds::kRowsEnd - 1;
constexpr uint32_t kWidestAux = Bounds::kAuxEnd - 1;

// The store's log records that say why a query got status 5: the
// constraints parser's refusals (1 to 6) and the scan's unreadable blocks.
constexpr uint32_t kConstraintsRefusedFirst = 1;
constexpr uint32_t kConstraintsRefusedLast = 6;
constexpr uint32_t kScanNoBlockVersion = 131;
[[maybe_unused]] constexpr uint32_t kScanBlockUnavailable = 132;  // within the range tested
constexpr uint32_t kScanNoEvent = 133;

uint32_t LoadUInt32(const char* p) {
  uint8_t b[4];
  std::memcpy(b, p, 4);
  return uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
}

bool SawQueryRecord(const QueryAnswer& answer, uint32_t first, uint32_t last) {
  for (const Keel::Log::Record& r : answer.problems) {
    if (r.component == Keel::Log::StorageQuery && r.message >= first && r.message <= last) {
      return true;
    }
  }
  return false;
}

// Splits the answer's bytes into rows; false when they do not add up.
bool SplitRows(QueryAnswer& answer, std::string& error) {
  const std::string& bytes = answer.events;
  if (bytes.size() < Layout::kHeaderSize || bytes[0] != Layout::kFormatVersion) {
    error = "the store sent an answer of " + std::to_string(bytes.size()) +
            " bytes that is not in the answer format";
    return false;
  }
  answer.status = LoadUInt32(bytes.data() + Layout::kStatusAt);
  answer.row_count = LoadUInt32(bytes.data() + Layout::kRowCountAt);
  answer.rows.clear();
  answer.rows.reserve(answer.row_count);
  size_t at = Layout::kHeaderSize;
  while (at < bytes.size()) {
    if (bytes.size() - at < 4) break;
    const uint32_t length = LoadUInt32(bytes.data() + at);
    at += 4;
    if (bytes.size() - at < length) break;
    answer.rows.emplace_back(bytes.data() + at, length);
    at += length;
  }
  if (at != bytes.size() || answer.rows.size() != answer.row_count) {
    error = "the store's answer says " + FormatCount(answer.row_count) + " rows but holds " +
            FormatCount(answer.rows.size());
    return false;
  }
  return true;
}

}  // namespace

bool CheckQueryLimits(const QueryLimits& limits, std::string& error) {
  if (limits.size_limit &&
      (*limits.size_limit < Bounds::kMinAnswerSize || *limits.size_limit > kWidestSize)) {
    error = "--size-limit must lie between " + FormatCount(Bounds::kMinAnswerSize) + " and " +
            FormatCount(kWidestSize) + " bytes";
    return false;
  }
  if (limits.row_limit &&
      (*limits.row_limit < Bounds::kMinRows || *limits.row_limit > kWidestRows)) {
    error = "--row-limit must lie between " + FormatCount(Bounds::kMinRows) + " and " +
            FormatCount(kWidestRows);
    return false;
  }
  if (limits.aux_limit &&
      (*limits.aux_limit < Bounds::kMinAux || *limits.aux_limit > kWidestAux)) {
    error = "--aux-limit must lie between " + FormatCount(Bounds::kMinAux) + " and " +
            FormatCount(kWidestAux);
    return false;
  }
  return true;
}

bool QueryClient::ApplyLimits(const QueryLimits& limits, bool widest, std::string& error) {
  if (!CheckQueryLimits(limits, error)) return false;
  const Storage::OSQuerySettings defaults = Storage::Settings::default_().osquery;
  size_limit_ = limits.size_limit.value_or(widest ? kWidestSize : defaults.size_limit);
  row_limit_ = limits.row_limit.value_or(widest ? kWidestRows : defaults.row_limit);
  aux_limit_ = limits.aux_limit.value_or(widest ? kWidestAux : defaults.aux_limit);
  Module::MapConfigReader config;
  config.SetUInt32(Keys::kQuerySizeLimit, size_limit_);
  config.SetUInt32(Keys::kQueryRowLimit, row_limit_);
  config.SetUInt32(Keys::kQueryAuxLimit, aux_limit_);
  if (!host_.IsOpen() || !host_.module()->Reconfigure(&config)) {
    error = "the storage module refused the query limits (run with --verbose to see why)";
    return false;
  }
  return true;
}

bool QueryClient::Ask(const QueryRequest& request, QueryAnswer& answer, std::string& error) {
  Events::QueryRecord query;
  query.page = request.page;
  query.token = request.token;
  query.table = request.table;
  // The record views the texts: the column list with the positions' name
  // added lives here until the record is written.
  const std::string columns =
      request.with_positions ? (request.columns.empty() ? "*" : request.columns) + "," +
                                   std::string(Storage::OSQuery::kPositionsColumn)
                             : request.columns;
  query.columns = columns;
  query.constraints = request.constraints;
  Events::DynamicEventBuilder builder;
  if (!query.Write(builder, static_cast<uint64_t>(RealNowMs()))) {
    error = "the query does not fit in one record (65,535 bytes): its constraints are too long";
    return false;
  }
  hx::MessageBus::Msg message;
  Events::ExternalData data(&message);
  Events::Objects::Base event = builder.Event();
  HostLog::BeginThreadCapture();
  answer = QueryAnswer();
  answer.handled = host_.module()->HandleEvent(&event, &data);
  answer.problems = HostLog::ThreadCapture();
  answer.asked_with_token = request.token != QueryRequest::kNoToken;
  std::optional<std::string_view> events = message.GetField("events");
  if (!events) {
    error = "the storage module sent no answer to the query on " + request.table +
            " (run with --verbose to see its log records)";
    return false;
  }
  answer.events.assign(events->data(), events->size());
  if (!SplitRows(answer, error)) return false;
  // An answer without rows (a range outside the store, say) has none to send.
  if (request.with_positions && answer.HasRows() && answer.row_count != 0) {
    std::optional<std::string_view> positions = message.GetField("positions");
    if (!positions || positions->size() != uint64_t{answer.row_count} * 8) {
      error = "the store sent " + std::to_string(positions ? positions->size() / 8 : 0) +
              " row positions for " + FormatCount(answer.row_count) + " rows";
      return false;
    }
    answer.positions.resize(answer.row_count);
    for (uint32_t i = 0; i < answer.row_count; ++i) {
      uint64_t value = 0;
      for (int b = 7; b >= 0; --b) value = value << 8 | static_cast<uint8_t>((*positions)[i * 8 + b]);
      answer.positions[i] = value;
    }
  }
  if (std::optional<std::string_view> token = message.GetField("token")) {
    Storage::OSQuery::ContinuationToken decoded;
    if (!decoded.Decode(token->data(), token->size())) {
      error = "the store sent a continuation token that does not decode";
      return false;
    }
    answer.has_token = true;
    answer.next_page = decoded.page;
    answer.next_token = decoded.position;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  stats_.queries += request.token == QueryRequest::kNoToken;
  ++stats_.answers;
  stats_.answer_bytes += answer.events.size();
  if (answer.HasRows()) stats_.rows += answer.row_count;
  return true;
}

bool QueryClient::AskAround(const QueryRequest& request, QueryAnswer& answer,
                            std::string& error) {
  if (!Ask(request, answer, error)) return false;
  if (answer.status != 5 || host_.Storage() == nullptr) return true;
  return ReadAround(*this, *host_.Storage(), host_.store(), request, answer, error);
}

std::set<uint64_t> QueryClient::UnreadableBlocks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return unreadable_blocks_;
}

void QueryClient::NoteUnreadableBlock(uint64_t block) {
  std::lock_guard<std::mutex> lock(mutex_);
  unreadable_blocks_.insert(block);
}

QueryStats QueryClient::stats() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return stats_;
}

std::string QueryClient::Explain(const QueryAnswer& answer) const {
  const uint32_t status = answer.status;
  switch (status) {
    case 1:
      return "more than " + FormatCount(row_limit_) +
             " rows match in one answer (status 1, the row limit), so the store dropped them: "
             "narrow the query with a date_time range or another filter" +
             (row_limit_ < kWidestRows ? ", or raise --row-limit" : "");
    case 2:
      return "the query needs more pages than aux_limit allows (status 2, " +
             FormatCount(aux_limit_) +
             " pages): narrow the time range with date_time" +
             (aux_limit_ < kWidestAux || size_limit_ < kWidestSize
                  ? ", or raise --aux-limit or --size-limit"
                  : "");
    case 3:
      return "the store could not turn a stored event into a row (status 3): the store may be "
             "damaged; run `tarn verify`";
    case 4:
      return "the date_time constraints contradict each other or use an operator a time range "
             "does not take (status 4): give date_time bounds with =, <, <=, > or >= in "
             "milliseconds since 1970 that leave some time between them";
    case 5:
      if (SawQueryRecord(answer, kConstraintsRefusedFirst, kConstraintsRefusedLast)) {
        return "the store could not parse the constraints (status 5): they must be a JSON "
               "object {\"column\": {\"affinity\": \"text\", \"list\": [{\"op\": 2, \"expr\": "
               "\"value\"}]}} with operators 1, 2, 4, 8, 16, 32, 64, 65, 66 or 67 and values "
               "that parse for their affinity";
      }
      if (SawQueryRecord(answer, kScanNoBlockVersion, kScanNoEvent)) {
        return answer.asked_with_token
                   ? "the store could not read the event the token names (status 5): send the "
                     "token of an answer to this same query, or run `tarn verify` if it was"
                   : "the store could not read a block the query needs (status 5): run `tarn "
                     "verify` to find the damage";
      }
      return "the store could not answer (status 5): an unknown table, constraints it cannot "
             "parse, or a block it could not read; run with --verbose to see its log records";
    case 9:
      return "the continuation token does not lie after the start of the query's time range "
             "(status 9): send back the token and page of the answer before, with the same "
             "table and constraints";
    default:
      return "the store answered with status " + std::to_string(status) +
             ", which this tool does not know";
  }
}

RowReader::~RowReader() = default;

bool RowReader::Open(std::string_view table) {
  row_.reset();
  const google::protobuf::Message* prototype =
      Storage::OSQuery::RowPrototype(Storage::OSQuery::TableIdByName(table));
  if (prototype == nullptr) return false;
  row_.reset(prototype->New());
  return true;
}

bool RowReader::Parse(std::string_view bytes) {
  return row_ != nullptr && row_->ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace Tarn::Tool
