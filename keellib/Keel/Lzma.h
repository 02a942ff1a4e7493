#pragma once

#include <cstdint>

#include "Keel/Export.h"

namespace Keel::Collections {
class Buffer;
}

namespace Keel::Lzma {

struct Options {
  // liblzma preset level, 0-9, optionally with LZMA_PRESET_EXTREME set.
  uint32_t preset = 6;
  // Encoder threads; 0 means one per hardware core (or TARN_LZMA_THREADS when
  // set, for benchmarks of the single-threaded path). More than one selects
  // the multi-threaded encoder, which cuts the input into 2 MiB xz blocks.
  uint32_t threads = 0;
  // Where a table of 8-byte entries begins, when the input ends with one:
  // the bytes from here on become a stream of their own behind a delta
  // filter at distance 8, so that entries which differ little from the one
  // before compress to almost nothing. kNoTable: the input is one stream.
  uint64_t table_offset = kNoTable;
  // With a table: the bytes before it as one xz block on one thread (a
  // 4 MiB window over all of them), for when there is time; else in 2 MiB
  // blocks on `threads`, for when there is none.
  bool one_block = false;

  static constexpr uint64_t kNoTable = UINT64_MAX;
};

// Largest .xz stream Compress can produce for `n` input bytes, for either
// encoder; 0 when that would not fit in 64 bits.
KEEL_API uint64_t CompressBound(uint64_t n);

// Replaces `out`'s content with .xz (CRC32 checks) of the `n` bytes at `in`:
// one stream, or, with a table, two streams one after the other, which any
// xz decoder reads back as the `n` bytes. On failure `out` is left empty
// and a record is logged.
KEEL_API bool Compress(const void* in, uint64_t n, Collections::Buffer& out,
                       const Options& options = Options());

// Replaces `out`'s content with the decoded bytes of the .xz streams, one
// after the other, that occupy all `n` bytes at `in`. The stream's check must be present
// and match, and it must decode to exactly `expected_size` bytes. On failure
// `out` is left empty and a record is logged.
KEEL_API bool Uncompress(const void* in, uint64_t n, Collections::Buffer& out,
                         uint64_t expected_size);

}  // namespace Keel::Lzma
