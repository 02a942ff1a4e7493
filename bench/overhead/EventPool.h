#pragma once

// Records of the synthetic endpoint (`tarn ingest --synthetic`'s generator:
// its mix of tables, sizes and texts), made before the measuring starts and
// handed out in turn, so that making events costs nothing while the store
// is measured. The pool is larger than a block, so no block holds an event
// twice.

#include <cstdint>
#include <string>
#include <vector>

namespace Tarn::Bench {

class EventPool {
 public:
  // `count` events of a week ending now. False with `error` when the
  // generator gave an event that no record holds.
  bool Make(uint64_t count, std::string& error);

  // The next record, round the pool.
  const uint8_t* Next(uint32_t& size);

  uint64_t Count() const { return offsets_.size(); }
  uint64_t Bytes() const { return bytes_.size(); }

 private:
  std::vector<uint8_t> bytes_;
  std::vector<uint64_t> offsets_;
  size_t next_ = 0;
};

}  // namespace Tarn::Bench
