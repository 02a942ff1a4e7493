#pragma once

// Windows events as log shippers write them, one JSON object per line
// ("Channel", "EventID", a time, the event's fields at the top level), made
// into rows of the tables by the rules of WindowsRules.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <google/protobuf/message.h>

namespace Tarn::Tool::Windows {

// One line read.
struct Event {
  std::string channel;
  uint32_t id = 0;
  int64_t time_ms = 0;
  std::unique_ptr<google::protobuf::Message> row;  // null when no table takes the event
};

// Reads one line into `event`; a row when a rule takes it. False with
// `error` in words when the line is no such event or a field does not read
// as its rule says.
bool ReadEvent(std::string_view line, Event& event, std::string& error);

// True when a line looks like a Windows event: an object with "Channel"
// and "EventID" and no "table".
bool LooksLikeEvent(std::string_view line);

// Checks every rule against the schema: its table exists, its columns too,
// and each takes what its conversion gives. False with `error` naming the
// first rule that does not.
bool CheckRules(std::string& error);

}  // namespace Tarn::Tool::Windows
