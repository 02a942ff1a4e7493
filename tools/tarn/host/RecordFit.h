#pragma once

#include "Tarn/Events/DynamicEventBuilder.h"

namespace google::protobuf {
class Message;
}

namespace Tarn::Tool {

// For an event larger than a record (65,535 bytes with its header: a
// PowerShell script block, a long command line), stored rather than refused:
// its longest texts are cut, all to the same length, as little as lets it fit.
//
// Builds the record of `row` with its texts cut to fit. False when it would
// not fit even with every text empty, or cannot be built at all.
bool BuildCutToFit(const google::protobuf::Message& row, Events::DynamicEventBuilder& out);

}  // namespace Tarn::Tool
