#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Keel/Collections/Array.h"
#include "Keel/Collections/Buffer.h"
#include "manager/format/EventsBlock.h"

namespace Tarn::Storage::test {

// Records of the chosen sizes back to back, as the writer collects them: a
// little structure (a rising counter and repeated text) so that they compress
// like events do, plus noise so that no two are equal.
struct SampleBlock {
  Keel::Collections::Buffer raw;
  Keel::Collections::Array<BlockEntry> entries;
  std::vector<std::string> records;
  std::vector<uint32_t> seconds;
};

inline SampleBlock MakeSampleBlock(const std::vector<uint32_t>& sizes, uint32_t first_second,
                                   uint32_t seed = 1) {
  SampleBlock block;
  uint64_t state = seed;
  for (uint32_t i = 0; i < sizes.size(); ++i) {
    std::string record(sizes[i], '\0');
    for (uint32_t j = 0; j < sizes[i]; ++j) {
      state = state * 6364136223846793005ull + 1442695040888963407ull;
      record[j] = j % 4 == 0 ? static_cast<char>(state >> 59) : "/usr/bin/agent "[j % 15];
    }
    if (!record.empty()) record[0] = static_cast<char>(i);
    uint32_t second = (first_second + i) % kSecondsPerDay;
    block.entries.Add(BlockEntry{static_cast<uint32_t>(block.raw.Size()), second});
    block.raw.Push(record.data(), record.size());
    block.records.push_back(std::move(record));
    block.seconds.push_back(second);
  }
  return block;
}

inline std::string Bytes(const uint8_t* data, uint64_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

inline std::string Bytes(const Keel::Collections::Buffer& buffer) {
  return Bytes(buffer.Data(), buffer.Size());
}

}  // namespace Tarn::Storage::test
