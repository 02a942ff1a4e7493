#pragma once

#include <string>

#include "manager/writer/Settings.h"
#include "manager/reader/TableStatistics.h"

namespace hx::MessageBus {
class Msg;
}
namespace Tarn::Events {
class ExternalData;
}
namespace Tarn::Storage {
class EventStorageProvider;
class StorageManager;
}  // namespace Tarn::Storage

namespace Tarn::Storage::OSQuery {

struct Query;
struct ResponseBuilder;

// The store's table queries: where an answer goes, the settings a query
// runs under, and the scan over the reader that fills the answer. It keeps
// nothing between queries, so any number of threads may ask at once. It
// also answers the reader's __dump_proto_stats once installed there.
class QueryService final : public TableStatistics {
 public:
  // Keeps both references: the reader to scan, the manager for each
  // query's settings. Both must outlive the service.
  QueryService(EventStorageProvider& provider, StorageManager& manager);
  QueryService(const QueryService&) = delete;
  QueryService& operator=(const QueryService&) = delete;

  // A table query: answered on the mock bus when it is local, otherwise on
  // the message `data` carries (none: logged, false). Takes the settings
  // snapshot for this one query. A QueryException does not leave: the
  // answer is then status 5 with no rows, and the result false.
  bool HandleQuery(Query&& query, Events::ExternalData* data);
  // Builds the answer in a response buffer of `settings.size_limit` bytes
  // and sends it on `msg` as "events" (and "token" when partial). False at
  // once, with nothing sent, for the table that another module answers.
  // Throws QueryException for an unknown table or unparsable constraints.
  bool HandleOSQuery(Query&& query, hx::MessageBus::Msg& msg, const OSQuerySettings& settings);
  // The scan: fills `response` with rows and sets its status and token.
  bool HandleOSQuery(Query&& query, const OSQuerySettings& settings, ResponseBuilder& response);

  // TableStatistics: see DumpProtoStats in osquery/ProtoStats.h.
  bool DumpProtoStats(const std::string& path) override;

 private:
  EventStorageProvider& provider_;
  StorageManager& manager_;
};

}  // namespace Tarn::Storage::OSQuery
