#pragma once

// Windows events as log shippers write them, one JSON object per line
// ("Channel", "EventID", a time, the event's fields at the top level), made
// into rows of the tables by the rules of WindowsRules.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/message.h>
#include <nlohmann/json.hpp>

namespace Tarn::Tool::Windows {

// One event read.
struct Event {
  std::string channel;
  uint32_t id = 0;
  int64_t time_ms = 0;
  // Its rows: none when no table takes the event, two when it is both a
  // memory read and a handle opened (Sysmon 10).
  std::vector<std::unique_ptr<google::protobuf::Message>> rows;
  // A text held NUL bytes: a record's text ends at one, so each is kept as
  // U+2400 (SYMBOL FOR NULL) and the rest of the text after it.
  bool nul_texts = false;
};

// Reads an event whose fields lie at the top level of `fields` (strings,
// numbers or null) into `event`. False with `error` in words when it is no
// Windows event or a field does not read as its rule says.
bool ReadFields(const nlohmann::json& fields, Event& event, std::string& error);

// ReadFields over one line of a shipper's JSON.
bool ReadEvent(std::string_view line, Event& event, std::string& error);

// True when a line looks like a Windows event: an object with "Channel"
// and "EventID" and no "table".
bool LooksLikeEvent(std::string_view line);

// Checks every rule against the schema: its table exists, its columns too,
// and each takes what its conversion gives. False with `error` naming the
// first rule that does not.
bool CheckRules(std::string& error);

}  // namespace Tarn::Tool::Windows
