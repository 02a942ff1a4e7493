#pragma once

// What the three questions (Contender.h) ask for, and the parts of their
// answers every contender computes the same way.

#include <google/protobuf/message.h>

#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "peers/Contender.h"

namespace Tarn::Bench::Questions {

constexpr std::string_view kHourTable = "edr_process_create";
constexpr std::string_view kHourCheckColumn = "pid";

constexpr std::string_view kProcessTable = "edr_process_create";
constexpr std::string_view kConnectionTables[] = {
    "edr_network_generic_connect", "edr_network_ssl_connect", "edr_network_http_connect"};
// The columns the join reads.
constexpr std::string_view kProcessColumns = "puid,path";
constexpr std::string_view kConnectionColumns = "puid,remote_ip,remote_port";

// Pairs processes and connections with the same puid, whatever order they
// come in.
class Join {
 public:
  void AddProcess(uint64_t puid) { ++processes_[puid]; }
  void AddConnection(uint64_t puid, uint32_t remote_port) {
    connections_.emplace_back(puid, remote_port);
  }
  // rows: the pairs; check: the sum of their remote ports.
  Outcome Result() const;

 private:
  std::unordered_map<uint64_t, uint64_t> processes_;  // puid -> starts with it
  std::vector<std::pair<uint64_t, uint32_t>> connections_;
};

// A number column of a row message (uint32 or uint64), by field.
uint64_t NumberField(const google::protobuf::Message& row,
                     const google::protobuf::FieldDescriptor* field);
// The field of a column, or null.
const google::protobuf::FieldDescriptor* FieldOf(const google::protobuf::Message& row,
                                                 std::string_view column);

// The join's part of one row of its tables: a process start (its puid) or
// a connection (puid and remote port). False when the row is neither.
bool AddJoinRow(const google::protobuf::Message& row, Join& join);

}  // namespace Tarn::Bench::Questions
