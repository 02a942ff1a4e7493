#pragma once

#include <cstdint>

#include "Keel/Collections/Buffer.h"

namespace Tarn::Storage::OSQuery {

// How a query ended; sent at offset 1 of the answer.
enum QueryStatus : uint8_t {
  kStatusComplete = 0,
  kStatusRowLimit = 1,       // more rows than row_limit: the rows are dropped
  kStatusPageLimit = 2,      // page + 1 is not below aux_limit
  kStatusRowFailed = 3,      // an event could not be turned into a row
  kStatusBadTimeRange = 4,   // contradictory or unsupported date_time constraints
  kStatusInternal = 5,       // the store could not be read; also the initial value
  kStatusDefaultRange = 6,   // no narrowing at all: answered as 0 with no rows
  kStatusOutsideStore = 7,   // nothing stored in the range: answered as 0 with no rows
  kStatusPartial = 8,        // the buffer is full: the rows that fit and a token
  kStatusTokenNotAfter = 9,  // the token does not lie after the range's start
};

// The answer's bytes: u8 format version 1, u32 status, u32 row count, then
// rows, each a u32 length and one serialized table message. Little-endian.
namespace ResponseLayout {
constexpr uint8_t kFormatVersion = 1;
constexpr uint32_t kStatusAt = 1;
constexpr uint32_t kRowCountAt = 5;
constexpr uint32_t kHeaderSize = 9;
constexpr uint32_t kGrowthStep = 512;
}  // namespace ResponseLayout

// Makes `buffer` the answer buffer of one query: allocated once at its full
// `size_limit`, never growing past it, so a row that does not fit is
// refused instead of reallocating.
bool CreateResponseBuffer(Keel::Collections::Buffer& buffer, uint32_t size_limit);
// Empties the buffer and writes the header of an answer with no rows and
// the initial status 5.
bool WriteResponseHeader(Keel::Collections::Buffer& buffer);
// Overwrites the u32 at `offset`, which must lie inside the header.
void PatchResponseHeader(Keel::Collections::Buffer& buffer, uint32_t offset, uint32_t value);

}  // namespace Tarn::Storage::OSQuery
