#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tarn::Samples {

// Bytes shaped like a block of stored events: a 24-byte header with a type,
// size and rising millisecond clock, numeric slots, then paths, command lines,
// user names and hex hashes. Repetitive like real events, but not trivially.
// Deterministic: the same size and seed always give the same bytes, so
// benchmark figures stay comparable between runs.
struct SampleRecords {
  std::vector<uint8_t> bytes;
  std::vector<uint32_t> offsets;   // where each record starts in `bytes`
  std::vector<uint64_t> times_ms;  // each record's clock
};

// Whole records only, as many as fit in `size` bytes.
SampleRecords EventLikeRecords(size_t size, uint32_t seed = 1);

// Exactly `size` bytes: the same records, the last one cut where `size` ends.
std::vector<uint8_t> EventLikeBytes(size_t size, uint32_t seed = 1);

}  // namespace Tarn::Samples
