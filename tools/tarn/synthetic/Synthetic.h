#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "osquery/Tables.h"
#include "tarn/import/RowJson.h"
#include "tarn/synthetic/SyntheticWorld.h"

namespace google::protobuf {
class Message;
}

namespace Tarn::Tool {

class ColumnFiller;
struct EventContext;
namespace Plan {
struct Table;
}

struct SyntheticOptions {
  uint64_t events = 100'000;
  uint64_t seed = 1;
  int64_t start_ms = 0;  // first possible event time
  int64_t end_ms = 0;    // events lie before it
};

// The events of one simulated endpoint over a time span: a Windows
// workstation used by one person, with WSL and three containers on it.
// Events come in time order, busier in working hours and on weekdays, and
// heavier on process, file and network activity, as on a real endpoint;
// every one of the 135 tables appears. The story holds together: pids and
// parents form one process tree, connections close after they open, and a
// few threads are there to be found (a document that starts an encoded
// PowerShell, an executable written to a temporary folder and then run, a
// program that talks to addresses nothing else does).
//
// The same options give the same events, byte for byte.
class SyntheticEvents {
 public:
  explicit SyntheticEvents(const SyntheticOptions& options);
  ~SyntheticEvents();
  SyntheticEvents(const SyntheticEvents&) = delete;
  SyntheticEvents& operator=(const SyntheticEvents&) = delete;

  // The next event's row; null after the last. Valid until the next call.
  const google::protobuf::Message* Next();
  uint64_t Made() const { return made_; }
  uint64_t Total() const { return options_.events; }

  // One row of `table` at `time_ms`, with as few empty columns as the
  // table allows. Moves the simulation on like Next does.
  const google::protobuf::Message* Sample(const Storage::OSQuery::TableInfo& table,
                                          int64_t time_ms);

 private:
  bool NextTime(int64_t& time_ms);
  void PlanHour();
  const Storage::OSQuery::TableInfo& ChooseTable();
  const google::protobuf::Message* Make(const Storage::OSQuery::TableInfo& table, int64_t time_ms,
                                        bool every_column);
  // What the event is about, by the story of its table.
  void Prepare(const Plan::Table& plan, EventContext& context);
  void PrepareNetwork(const Plan::Table& plan, EventContext& context);

  SyntheticOptions options_;
  std::unique_ptr<World> world_;
  std::unique_ptr<ColumnFiller> filler_;
  RowJson rows_;
  WeightedChoice table_choice_;
  size_t spawn_table_ = 0;  // the tables whose events start and end processes
  size_t terminate_table_ = 0;
  std::vector<double> cumulative_hour_weight_;
  int64_t first_hour_ = 0;  // hour numbers since 1970
  int64_t hour_ = 0;
  std::vector<int64_t> times_;  // of the current hour, ascending
  size_t next_time_ = 0;
  uint64_t made_ = 0;
  uint64_t planned_ = 0;
  // Copies of the processes an event is about, which the world may move.
  Process actor_;
  Process other_;
};

}  // namespace Tarn::Tool
