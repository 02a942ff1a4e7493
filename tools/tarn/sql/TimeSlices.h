#pragma once

// Where a scan over the store's time may be cut into parts that together
// read exactly the events the whole scan reads.
//
// A table query reads the events filed in a range of seconds, from the first
// event at or after its first second to the last one at or before its last.
// When the store's blocks follow one another in time (each starts at or
// after the second the one before it ends), the events of two adjacent
// ranges of seconds are the events of their union, in the same order: a
// scan cut at any second gives the same rows. The store writes its blocks
// that way unless its clock went back; a store whose index shows otherwise
// is never cut.

#include <cstdint>
#include <string>
#include <vector>

namespace Tarn::Tool {

// Seconds since 1970, both ends included.
struct SecondRange {
  uint64_t first = 0;
  uint64_t last = 0;
};

class TimeSlices {
 public:
  // Reads the blocks' seconds from the index file of `store`. An index that
  // cannot be read, or blocks out of time order, leave nothing to cut.
  void Load(const std::string& store);

  bool CanCut() const { return !blocks_.empty(); }

  // Cuts `range` (which may reach past the stored blocks) into parts of about `blocks_per_part`
  // blocks each, in time order. Each cut falls inside a block where it can,
  // so that the two parts beside it share that one block rather than each
  // begin with a block of its own.
  std::vector<SecondRange> Cut(SecondRange range, size_t blocks_per_part) const;
  // Blocks that hold seconds of `range`.
  size_t BlocksIn(SecondRange range) const;

 private:
  struct Block {
    uint64_t first = 0;  // seconds of its first and last events
    uint64_t last = 0;
  };
  std::vector<Block> blocks_;  // in store order, which is time order
};

}  // namespace Tarn::Tool
