#include "peers/Corpus.h"

#include <google/protobuf/message.h>

#include <fstream>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "osquery/RecordBuilder.h"
#include "peers/RecordFile.h"
#include "tarn/import/RowJson.h"

namespace Tarn::Bench {
namespace {

// An exported row always fits a record: the store held it as one.
bool BuildOne(const google::protobuf::Message& row, Events::DynamicEventBuilder& builder) {
  return Storage::OSQuery::BuildRecord(row, builder);
}

}  // namespace

bool MakeRecordFile(const std::string& json_path, const std::string& records_path, CorpusInfo& info,
                    std::string& error) {
  std::ifstream in(json_path, std::ios::binary);
  RecordWriter out;
  if (!in || !out.Open(records_path)) {
    error = "cannot open " + (in ? records_path : json_path);
    return false;
  }
  Tool::RowJson rows;
  Events::DynamicEventBuilder builder;
  std::string line;
  for (uint64_t number = 1; std::getline(in, line); ++number) {
    info.json_bytes += line.size() + 1;
    if (line.empty()) continue;
    google::protobuf::Message* row = nullptr;
    if (!rows.Parse(line, row, error) || !BuildOne(*row, builder)) {
      error = json_path + ":" + std::to_string(number) + ": " +
              (error.empty() ? "the event does not fit in a record" : error);
      return false;
    }
    const auto time_ms = static_cast<int64_t>(RecordTime(builder.Data()));
    if (time_ms < info.last_ms) {
      error = json_path + ":" + std::to_string(number) + ": the lines are not in time order";
      return false;
    }
    if (info.events++ == 0) info.first_ms = time_ms;
    info.last_ms = time_ms;
    info.record_bytes += builder.Size();
    if (!out.Write(builder.Data(), builder.Size())) {
      error = "cannot write " + records_path;
      return false;
    }
  }
  if (!out.Close()) {
    error = "cannot write " + records_path;
    return false;
  }
  if (info.events == 0) error = json_path + " holds no events";
  return info.events != 0;
}

}  // namespace Tarn::Bench
