#pragma once

#include <cstdint>

#include "Keel/Collections/Buffer.h"
#include "hx/MessageBus/Msg.h"
#include "manager/writer/Settings.h"
#include "osquery/ResponseBuffer.h"

namespace Tarn::Storage::OSQuery {

// The answer to one query while it is being built: the response bytes (a
// 9-byte header, then rows of a u32 length and a serialized message) and
// what the scan learned. Lives on the query handler's stack.
struct ResponseBuilder {
  static constexpr uint64_t kNoToken = ~uint64_t{0};
  static constexpr uint8_t kInitialStatus = kStatusInternal;
  // Answers smaller than this are also dumped to the debug log.
  static constexpr uint64_t kDebugDumpBelow = 512;

  explicit ResponseBuilder(hx::MessageBus::Msg& message) : msg(message) {}

  // Resets the counters to a fresh answer and creates the buffer at its
  // full size with the header of an empty answer. False when the buffer
  // cannot be had.
  bool Start(const OSQuerySettings& settings);

  // Puts the final status and row count in the header, drops the rows of
  // an answer that is not sent whole, and sends "token" (when there is one)
  // and then "events" on `msg`. False (logged) when a field is refused; a
  // refused token turns the answer into a failure (status 5, no rows) that
  // still goes out as "events".
  bool Finish();

  uint32_t rows = 0;      // rows written so far
  uint32_t last_row = 0;  // offset of the last row written
  uint32_t max_rows = 0;
  Keel::Collections::Buffer buffer;
  hx::MessageBus::Msg& msg;
  uint8_t status = kInitialStatus;
  uint64_t token = kNoToken;  // where a partial answer resumes
  uint16_t page = 0;          // the page the token names
  // Each row's store position, when the requester asked for them
  // (kPositionsColumn); sent as "positions" with a whole or partial answer.
  bool with_positions = false;
  Keel::Collections::Buffer positions;

 private:
  void DropRows(uint8_t final_status);
  void DumpToDebugLog() const;
};

}  // namespace Tarn::Storage::OSQuery
