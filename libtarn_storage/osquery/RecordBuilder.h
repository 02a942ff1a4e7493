#pragma once

#include <cstdint>

#include "Tarn/Events/DynamicEventBuilder.h"

namespace google::protobuf {
class Message;
}  // namespace google::protobuf

namespace Tarn::Storage::OSQuery {

// Writes the event record whose row would be `row` (a message of one of the
// tables), through its table's generated builder: date_time becomes the time
// stamp and every other field its slot. Address and list fields are read in
// their row forms. `version` 0 stands for the version the table accepts.
// False when the message is no table's or a field cannot be stored.
bool BuildRecord(const google::protobuf::Message& row, Events::DynamicEventBuilder& out,
                 uint16_t version = 0);

}  // namespace Tarn::Storage::OSQuery
