#pragma once

// Reads a query answer the way a requester does, straight from its bytes:
// u8 format, u32 status, u32 row count, then u32-length-prefixed rows; and
// the 24-byte continuation token. Independent of the module's own code.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::test {

struct Answer {
  bool well_formed = false;  // header present and rows fill the rest exactly
  uint8_t format = 0;
  uint32_t status = 0xFFFFFFFFu;
  uint32_t row_count = 0;
  std::vector<std::string> rows;
};

struct Token {
  uint32_t magic = 0;
  uint16_t page = 0;
  uint16_t pad = 0;
  uint64_t position = 0;
  uint64_t trailer = 0;
};

template <typename T>
T LoadLittle(const char* p) {
  T value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

inline Answer ParseAnswer(std::string_view bytes) {
  Answer answer;
  if (bytes.size() < 9) return answer;
  answer.format = static_cast<uint8_t>(bytes[0]);
  answer.status = LoadLittle<uint32_t>(bytes.data() + 1);
  answer.row_count = LoadLittle<uint32_t>(bytes.data() + 5);
  size_t at = 9;
  while (at < bytes.size()) {
    if (bytes.size() - at < 4) return answer;
    uint32_t length = LoadLittle<uint32_t>(bytes.data() + at);
    at += 4;
    if (bytes.size() - at < length) return answer;
    answer.rows.emplace_back(bytes.substr(at, length));
    at += length;
  }
  answer.well_formed = answer.rows.size() == answer.row_count;
  return answer;
}

inline bool ParseToken(std::string_view bytes, Token& token) {
  if (bytes.size() != 24) return false;
  token.magic = LoadLittle<uint32_t>(bytes.data());
  token.page = LoadLittle<uint16_t>(bytes.data() + 4);
  token.pad = LoadLittle<uint16_t>(bytes.data() + 6);
  token.position = LoadLittle<uint64_t>(bytes.data() + 8);
  token.trailer = LoadLittle<uint64_t>(bytes.data() + 16);
  return true;
}

}  // namespace tarn::test
