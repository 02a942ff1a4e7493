#include "osquery/ResponseBuilder.h"

#include "Keel/Log.h"
#include "Tarn/Events/Record.h"
#include "osquery/ContinuationToken.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kTokenRefused = 90,   // a = position
  kEventsRefused = 91,  // a = answer size, b = status
  kAnswerBytes = 92,    // a, b = 16 bytes of the answer, c = their offset
  kAnswerSent = 93,     // a = status, b = rows, c = answer size
  kPositionsRefused = 94,  // a = their size
};

constexpr uint64_t kDumpChunk = 16;

uint64_t LoadChunkPart(const uint8_t* data, uint64_t available) {
  uint64_t value = 0;
  for (uint64_t i = 0; i < available && i < 8; ++i) value |= uint64_t{data[i]} << (8 * i);
  return value;
}

}  // namespace

bool ResponseBuilder::Start(const OSQuerySettings& settings) {
  rows = 0;
  last_row = 0;
  max_rows = settings.row_limit;
  status = kInitialStatus;
  token = kNoToken;
  page = 0;
  return CreateResponseBuffer(buffer, settings.size_limit) && WriteResponseHeader(buffer);
}

void ResponseBuilder::DropRows(uint8_t final_status) {
  rows = 0;
  last_row = 0;
  WriteResponseHeader(buffer);
  PatchResponseHeader(buffer, ResponseLayout::kStatusAt, final_status);
}

bool ResponseBuilder::Finish() {
  switch (status) {
    case kStatusComplete:
    case kStatusPartial:
      PatchResponseHeader(buffer, ResponseLayout::kRowCountAt, rows);
      PatchResponseHeader(buffer, ResponseLayout::kStatusAt, status);
      break;
    case kStatusDefaultRange:
    case kStatusOutsideStore:
      // Nothing to answer is not an error; such answers never carry rows.
      DropRows(kStatusComplete);
      break;
    default:
      // A failed or over-long answer is not sent in part.
      token = kNoToken;
      DropRows(status);
      break;
  }
  bool sent = true;
  if (with_positions && (status == kStatusComplete || status == kStatusPartial) &&
      !msg.SetField("positions", positions.Data(), positions.Size())) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kPositionsRefused, positions.Size(), 0, 0);
    token = kNoToken;
    status = kStatusInternal;
    DropRows(status);
    sent = false;
  }
  if (token != kNoToken) {
    uint8_t bytes[ContinuationToken::kSize];
    ContinuationToken{page, token}.Encode(bytes);
    if (!msg.SetField("token", bytes, sizeof(bytes))) {
      // A partial answer without its token cannot be followed: it goes out
      // as a failure, without its rows, and "events" is still set.
      KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kTokenRefused, token, 0, 0);
      token = kNoToken;
      status = kStatusInternal;
      DropRows(status);
      sent = false;
    }
  }
  if (buffer.Size() < kDebugDumpBelow) DumpToDebugLog();
  if (!msg.SetField("events", buffer.Data(), buffer.Size())) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kEventsRefused, buffer.Size(), status, 0);
    return false;
  }
  KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kAnswerSent, status, rows, buffer.Size());
  return sent;
}

void ResponseBuilder::DumpToDebugLog() const {
  // The log carries numbers only: the bytes go as two little-endian words
  // per record, with their offset.
  for (uint64_t at = 0; at < buffer.Size(); at += kDumpChunk) {
    const uint64_t left = buffer.Size() - at;
    const uint8_t* chunk = buffer.Data() + at;
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kAnswerBytes, LoadChunkPart(chunk, left),
             left > 8 ? LoadChunkPart(chunk + 8, left - 8) : 0, at);
  }
}

}  // namespace Tarn::Storage::OSQuery
