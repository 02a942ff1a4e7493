#pragma once

#include <string>

namespace Tarn::Storage {
class EventStorageProvider;
}

namespace Tarn::Storage::OSQuery {

// Walks every stored event and writes, as JSON, how many events each table
// holds, their record bytes and the bytes of their full rows, keyed by the
// event type's name ("ProcessCreate"). Events without a table, or of a
// version no table accepts, are only counted. A debugging aid: the query
// service answers the reader's __dump_proto_stats with it.
bool DumpProtoStats(EventStorageProvider& provider, const std::string& path);

}  // namespace Tarn::Storage::OSQuery
