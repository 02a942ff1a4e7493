#pragma once

#include <cstddef>
#include <cstdint>

namespace Tarn::Storage::OSQuery {

// What a partial answer sends as "token": where the next page resumes and
// which page it is. A follow-up query sends the position back as its token
// and the page as its page. 24 bytes, little-endian: u32 magic, u16 page,
// u16 0, u64 position, u64 0.
struct ContinuationToken {
  static constexpr uint32_t kMagic = 0x00014B54;
  static constexpr size_t kSize = 24;

  uint16_t page = 0;
  uint64_t position = ~uint64_t{0};

  void Encode(uint8_t (&out)[kSize]) const;
  // False, with the token untouched, unless `size` is 24 and the magic and
  // both zero fields are in place.
  bool Decode(const void* data, size_t size);
};

}  // namespace Tarn::Storage::OSQuery
