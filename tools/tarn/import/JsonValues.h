#pragma once

// JSON values one after another in one text, as the evtx dump tools write
// events: one object per line, or pretty-printed objects back to back.

#include <cstdint>
#include <string>
#include <string_view>

namespace Tarn::Tool {

class JsonValues {
 public:
  explicit JsonValues(std::string_view text) : text_(text) {}

  // The next value's text and the line it starts on (from 1). False at the
  // end, or with `error` set when what follows is no object or array, or
  // one that never closes (the rest of the text is then passed over).
  bool Next(std::string_view& value, uint64_t& line, std::string& error);

  // Bytes read so far.
  uint64_t Offset() const { return pos_; }

 private:
  void SkipBlanks();

  std::string_view text_;
  size_t pos_ = 0;
  uint64_t line_ = 1;
};

}  // namespace Tarn::Tool
