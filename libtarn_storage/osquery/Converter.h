#pragma once

#include "Tarn/Events/Base.h"
#include "osquery/Columns.h"

namespace google::protobuf {
class Arena;
class Message;
}  // namespace google::protobuf

namespace Tarn::Storage::OSQuery {

// The row of a stored event: a message of its table's type, created on
// `arena` and holding the selected columns only (every column for "*";
// names the table lacks are passed over). Texts that are not UTF-8 become
// "<invalid_utf8_string>". Null, logged, when the type has no table.
google::protobuf::Message* ConvertEvent(google::protobuf::Arena* arena,
                                        const Events::Objects::Base& event,
                                        const ColumnSelection& columns);

}  // namespace Tarn::Storage::OSQuery
