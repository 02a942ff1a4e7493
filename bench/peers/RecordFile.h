#pragma once

// The corpus every contender is fed: event records back to back, each as
// the store keeps it (its size is in its own header), in time order. Read
// as a stream, so the corpus never sits in a contender's memory.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Tarn/Events/Record.h"

namespace Tarn::Bench {

// What a record's header says.
inline uint32_t RecordType(const uint8_t* record) {
  return Events::Record::LoadUInt32(record + Events::Record::kTypeOffset) &
         Events::Record::kTypeIdMask;
}
inline uint64_t RecordTime(const uint8_t* record) {
  return Events::Record::LoadUInt64(record + Events::Record::kTimeStampOffset);
}

class RecordWriter {
 public:
  ~RecordWriter();
  bool Open(const std::string& path);
  bool Write(const uint8_t* record, uint32_t size);
  // Flushes and closes; false when any write failed.
  bool Close();

 private:
  std::FILE* file_ = nullptr;
  bool failed_ = false;
};

class RecordReader {
 public:
  ~RecordReader();
  bool Open(const std::string& path);
  // The next record, valid until the next call; false at the end or when
  // the file ends inside a record (then Damaged()).
  bool Next(const uint8_t*& record, uint32_t& size);
  bool Damaged() const { return damaged_; }

 private:
  bool Refill(size_t need);

  std::FILE* file_ = nullptr;
  std::vector<uint8_t> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool damaged_ = false;
};

}  // namespace Tarn::Bench
