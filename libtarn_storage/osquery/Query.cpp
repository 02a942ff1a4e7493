#include "osquery/Query.h"

#include "Keel/Log.h"
#include "Tarn/Events/QueryRecord.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNotAQueryRecord = 80,  // a = type id, b = size
};

}  // namespace

bool Query::FromRecord(const Events::Objects::Base& event, Query& out) {
  Events::QueryRecord record;
  if (!record.Read(event.Data(), event.Size())) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kNotAQueryRecord, event.TypeId(),
             event.Size(), 0);
    return false;
  }
  // The texts are copied: the record belongs to the caller, the query to
  // the handler.
  Query query;
  query.local = record.local;
  query.page = record.page;
  query.token = record.token;
  query.table = record.table;
  query.columns = record.columns;
  query.constraints = record.constraints;
  out = std::move(query);
  return true;
}

}  // namespace Tarn::Storage::OSQuery
