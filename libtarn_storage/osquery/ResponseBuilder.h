#pragma once

#include <cstdint>

#include "Keel/Collections/Buffer.h"
#include "hx/MessageBus/Msg.h"

namespace Tarn::Storage::OSQuery {

// The answer to one query while it is being built: the response bytes (a
// 9-byte header, then rows of a u32 length and a serialized message) and
// what the scan learned. Lives on the query handler's stack.
struct ResponseBuilder {
  static constexpr uint64_t kNoToken = ~uint64_t{0};
  static constexpr uint8_t kInitialStatus = 5;

  explicit ResponseBuilder(hx::MessageBus::Msg& message) : msg(message) {}

  uint32_t rows = 0;      // rows written so far
  uint32_t last_row = 0;  // offset of the last row written
  uint32_t max_rows = 0;
  Keel::Collections::Buffer buffer;
  hx::MessageBus::Msg& msg;
  uint8_t status = kInitialStatus;
  uint64_t token = kNoToken;  // where a partial answer resumes
  uint16_t page = 0;
};

}  // namespace Tarn::Storage::OSQuery
