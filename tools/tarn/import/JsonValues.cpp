#include "tarn/import/JsonValues.h"

namespace Tarn::Tool {

void JsonValues::SkipBlanks() {
  while (pos_ < text_.size()) {
    const char c = text_[pos_];
    if (c == '\n') {
      ++line_;
    } else if (c != ' ' && c != '\t' && c != '\r') {
      return;
    }
    ++pos_;
  }
}

bool JsonValues::Next(std::string_view& value, uint64_t& line, std::string& error) {
  error.clear();
  if (pos_ == 0 && text_.substr(0, 3) == "\xEF\xBB\xBF") pos_ = 3;  // a UTF-8 byte order mark
  SkipBlanks();
  if (pos_ >= text_.size()) return false;
  line = line_;
  const size_t start = pos_;
  if (text_[pos_] != '{' && text_[pos_] != '[') {
    error = "expected a JSON object, found '" + std::string(1, text_[pos_]) + "'";
    // Go on at the next line: one stray line does not hide the rest.
    const size_t end = text_.find('\n', pos_);
    pos_ = end == std::string_view::npos ? text_.size() : end;
    return false;
  }
  // Brackets are counted outside strings; the parser checks the rest.
  uint64_t depth = 0;
  bool in_string = false;
  for (; pos_ < text_.size(); ++pos_) {
    const char c = text_[pos_];
    if (c == '\n') ++line_;
    if (in_string) {
      if (c == '\\') {
        ++pos_;  // an escaped character, never a string's end
      } else if (c == '"') {
        in_string = false;
      }
      continue;
    }
    if (c == '"') {
      in_string = true;
    } else if (c == '{' || c == '[') {
      ++depth;
    } else if ((c == '}' || c == ']') && --depth == 0) {
      ++pos_;
      value = text_.substr(start, pos_ - start);
      return true;
    }
  }
  error = "a JSON value that starts here is not closed by the end of the file";
  return false;
}

}  // namespace Tarn::Tool
