#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "generated/SyntheticPlan.h"
#include "tarn/synthetic/SyntheticWorld.h"

namespace google::protobuf {
class FieldDescriptor;
class Message;
}  // namespace google::protobuf

namespace Tarn::Tool {

// What one synthetic event is about. The event's story (who acted, on what
// file, towards which peer) is chosen first; the columns are then read off
// it, so that a row's pid, path and command line belong to one process.
struct EventContext {
  int64_t time_ms = 0;
  const Process* actor = nullptr;  // the process the event is about
  const Process* other = nullptr;  // one it acts upon: target, victim, requester
  const User* user = nullptr;      // the account acting (the actor's by default)
  const User* other_user = nullptr;
  std::string file;   // the path acted upon
  std::string file2;  // where it goes: a new path, a destination, a link
  size_t peer = 0;    // the remote host, for network events
  uint32_t local_port = 0;
  uint64_t connection_id = 0;
  bool inbound = false;
  std::string key;                // registry key
  std::string name;               // service, task, rule, share, object
  uint32_t list_items = 1;        // items of the lists that go in pairs
  std::vector<std::string> keys;  // extra_keys, for extra_values
  bool every_column = false;      // leave no column empty (samples)
};

// How each column of each table gets its value: the table's plan names a
// rule per column (tables.toml), and the rule reads the value off the
// event's context.
class ColumnFiller {
 public:
  explicit ColumnFiller(World& world);

  // Sets every column of `row` (a message of the plan's table) from the context.
  void Fill(const Plan::Table& plan, google::protobuf::Message& row, EventContext& context);

 private:
  uint64_t Number(Plan::NumberRule rule, bool wide, EventContext& context);
  std::string Text(Plan::TextRule rule, EventContext& context);

  World& world_;
};

}  // namespace Tarn::Tool
