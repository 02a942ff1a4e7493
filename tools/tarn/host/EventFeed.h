#pragma once

#include <cstdint>
#include <string>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "tarn/host/ModuleHost.h"

namespace google::protobuf {
class Message;
}

namespace Tarn::Tool {

// Puts rows into an open store, one record each, refusing what the store
// could not keep as it should:
//  - a time in the future: a store whose newest day lies ahead of the clock
//    wipes itself at its next start;
//  - a time before 2000-01-01, the store's first day;
//  - a time earlier than the newest event already stored (to the second):
//    the store keeps each day's events in the order of time.
// An event larger than a record is stored with its longest texts cut.
class EventFeed {
 public:
  EventFeed(ModuleHost& host, int64_t newest_stored_ms);

  // False with `error` in words when the row is refused; the store is then
  // as it was.
  bool Add(const google::protobuf::Message& row, std::string& error);

  uint64_t Stored() const { return stored_; }
  uint64_t RecordBytes() const { return record_bytes_; }
  // Events stored with texts cut to fit a record.
  uint64_t Cut() const { return cut_; }

 private:
  ModuleHost& host_;
  Events::DynamicEventBuilder builder_;
  int64_t newest_ms_;
  bool newest_from_store_;
  uint64_t stored_ = 0;
  uint64_t record_bytes_ = 0;
  uint64_t cut_ = 0;
};

}  // namespace Tarn::Tool
