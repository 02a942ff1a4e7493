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
};

// Largest .xz stream Compress can produce for `n` input bytes, for either
// encoder; 0 when that would not fit in 64 bits.
KEEL_API uint64_t CompressBound(uint64_t n);

// Replaces `out`'s content with an .xz stream (CRC32 check) of the `n`
// bytes at `in`. On failure `out` is left empty and a record is logged.
KEEL_API bool Compress(const void* in, uint64_t n, Collections::Buffer& out,
                       const Options& options = Options());

// Replaces `out`'s content with the decoded bytes of the single .xz stream
// that occupies all `n` bytes at `in`. The stream's check must be present
// and match, and it must decode to exactly `expected_size` bytes. On failure
// `out` is left empty and a record is logged.
KEEL_API bool Uncompress(const void* in, uint64_t n, Collections::Buffer& out,
                         uint64_t expected_size);

}  // namespace Keel::Lzma
