#include "peers/Questions.h"

#include <string>

namespace Tarn::Bench::Questions {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

Outcome Join::Result() const {
  Outcome outcome;
  for (const auto& [puid, port] : connections_) {
    auto found = processes_.find(puid);
    if (found == processes_.end()) continue;
    outcome.rows += found->second;
    outcome.check += found->second * port;
  }
  return outcome;
}

uint64_t NumberField(const Message& row, const FieldDescriptor* field) {
  return field->cpp_type() == FieldDescriptor::CPPTYPE_UINT32
             ? row.GetReflection()->GetUInt32(row, field)
             : row.GetReflection()->GetUInt64(row, field);
}

const FieldDescriptor* FieldOf(const Message& row, std::string_view column) {
  return row.GetDescriptor()->FindFieldByName(std::string(column));
}

bool AddJoinRow(const Message& row, Join& join) {
  const FieldDescriptor* puid = FieldOf(row, "puid");
  if (puid == nullptr) return false;
  if (row.GetDescriptor()->name() == kProcessTable) {
    join.AddProcess(NumberField(row, puid));
    return true;
  }
  const FieldDescriptor* port = FieldOf(row, "remote_port");
  if (port == nullptr) return false;
  join.AddConnection(NumberField(row, puid), static_cast<uint32_t>(NumberField(row, port)));
  return true;
}

}  // namespace Tarn::Bench::Questions
