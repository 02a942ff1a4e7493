// Intake (bus, settings snapshot), the answer around the scan, and what
// decides where the scan runs (table, columns, constraints, page limit,
// time range, continuation token).

#include "osquery/QueryService.h"

#include <string_view>

#include "Keel/Log.h"
#include "Tarn/Events/ExternalData.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/writer/StorageManager.h"
#include "osquery/Columns.h"
#include "osquery/ConstraintsList.h"
#include "osquery/MsgBusMock.h"
#include "osquery/ProtoStats.h"
#include "osquery/Query.h"
#include "osquery/QueryException.h"
#include "osquery/QueryScan.h"
#include "osquery/ResponseBuilder.h"
#include "osquery/Tables.h"
#include "osquery/TimeRange.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNoMessage = 120,          // a = table length
  kQueryRefused = 121,       // a = table length
  kAnswerNotSent = 122,      // a = status
  kAnsweredElsewhere = 123,
};

constexpr std::string_view kAnsweredByAnotherModule = "edr_netdb";
// Room for the positions of a page of 4,096 rows before the buffer grows.
constexpr uint64_t kPositionsInitialBytes = 4'096 * 8;

// An answer that says only how the query failed, for when the builder is
// gone (the query threw before or while scanning).
void SendFailure(hx::MessageBus::Msg& msg, uint8_t status) {
  ResponseBuilder response(msg);
  OSQuerySettings settings;
  settings.size_limit = ResponseLayout::kHeaderSize;
  if (!response.Start(settings)) return;
  response.status = status;
  response.Finish();
}

}  // namespace

QueryService::QueryService(EventStorageProvider& provider, StorageManager& manager)
    : provider_(provider), manager_(manager) {}

bool QueryService::HandleQuery(Query&& query, Events::ExternalData* data) {
  MsgBusMock local_bus;
  hx::MessageBus::Msg* msg = &local_bus;
  if (!query.local) {
    msg = data != nullptr ? data->Message() : nullptr;
    if (msg == nullptr) {
      KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kNoMessage, query.table.size(), 0, 0);
      return false;
    }
  }
  const OSQuerySettings settings = manager_.GetSettings().osquery;
  const size_t table_length = query.table.size();
  try {
    return HandleOSQuery(std::move(query), *msg, settings);
  } catch (const QueryException&) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kQueryRefused, table_length, 0, 0);
    SendFailure(*msg, kStatusInternal);
    return false;
  }
}

bool QueryService::HandleOSQuery(Query&& query, hx::MessageBus::Msg& msg,
                                 const OSQuerySettings& settings) {
  ResponseBuilder response(msg);
  if (!response.Start(settings)) throw QueryException(QueryException::kNoBuffer);
  if (query.table == kAnsweredByAnotherModule) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kAnsweredElsewhere, 0, 0, 0);
    return false;
  }
  const bool result = HandleOSQuery(std::move(query), settings, response);
  if (!response.Finish()) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kAnswerNotSent, response.status, 0, 0);
  }
  return result;
}

bool QueryService::HandleOSQuery(Query&& query, const OSQuerySettings& settings,
                                 ResponseBuilder& response) {
  const uint32_t type_id = TableIdByName(query.table);
  if (type_id == 0) throw QueryException(QueryException::kUnknownTable);
  const ColumnSelection columns = SplitColumns(query.columns);
  response.with_positions = AsksForPositions(columns);
  if (response.with_positions && !response.positions.Create(kPositionsInitialBytes)) {
    throw QueryException(QueryException::kNoBuffer);
  }
  ConstraintsList constraints;
  if (!constraints.Parse(query.constraints)) {
    throw QueryException(QueryException::kBadConstraints);
  }
  if (uint32_t{query.page} + 1 >= settings.aux_limit) {
    response.status = kStatusPageLimit;
    return false;
  }
  TimeRange range;
  ScanBounds bounds;
  uint8_t located = NarrowTimeRange(constraints, range);
  if (located == kStatusComplete) located = LocateTimeRange(provider_, range, bounds);
  if (located != kStatusComplete) {
    response.status = located;
    return false;
  }
  ScanRequest request{type_id, &columns, &constraints, bounds.start, bounds.end};
  if (query.HasToken()) {
    if (provider_.Compare(query.token, bounds.start) <= 0) {
      response.status = kStatusTokenNotAfter;
      return false;
    }
    request.start = query.token;
  }
  // A token this answer hands out names the page after the query's.
  response.page = static_cast<uint16_t>(query.page + 1);
  return ScanPositions(provider_, settings, request, response);
}

bool QueryService::DumpProtoStats(const std::string& path) {
  return OSQuery::DumpProtoStats(provider_, path);
}

}  // namespace Tarn::Storage::OSQuery
