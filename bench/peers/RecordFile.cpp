#include "peers/RecordFile.h"

#include <cstring>

namespace Tarn::Bench {

namespace {
constexpr size_t kBufferBytes = 1 << 20;
}

RecordWriter::~RecordWriter() { Close(); }

bool RecordWriter::Open(const std::string& path) {
  file_ = std::fopen(path.c_str(), "wb");
  return file_ != nullptr;
}

bool RecordWriter::Write(const uint8_t* record, uint32_t size) {
  if (file_ == nullptr || std::fwrite(record, 1, size, file_) != size) failed_ = true;
  return !failed_;
}

bool RecordWriter::Close() {
  if (file_ == nullptr) return !failed_;
  if (std::fclose(file_) != 0) failed_ = true;
  file_ = nullptr;
  return !failed_;
}

RecordReader::~RecordReader() {
  if (file_ != nullptr) std::fclose(file_);
}

bool RecordReader::Open(const std::string& path) {
  file_ = std::fopen(path.c_str(), "rb");
  buffer_.resize(kBufferBytes);
  return file_ != nullptr;
}

// Makes at least `need` unread bytes available, when the file has them.
bool RecordReader::Refill(size_t need) {
  if (end_ - begin_ >= need) return true;
  std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  end_ += std::fread(buffer_.data() + end_, 1, buffer_.size() - end_, file_);
  return end_ >= need;
}

bool RecordReader::Next(const uint8_t*& record, uint32_t& size) {
  using namespace Events::Record;
  if (file_ == nullptr || !Refill(kHeaderSize)) {
    damaged_ = end_ != begin_;
    return false;
  }
  size = LoadUInt16(buffer_.data() + begin_ + kSizeOffset);
  if (size < kHeaderSize || !Refill(size)) {
    damaged_ = true;
    return false;
  }
  record = buffer_.data() + begin_;
  begin_ += size;
  return true;
}

}  // namespace Tarn::Bench
