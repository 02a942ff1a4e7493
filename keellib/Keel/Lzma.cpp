#include "Keel/Lzma.h"

#include <lzma.h>

#include <algorithm>
#include <cstdlib>

#include "Keel/Collections/Buffer.h"
#include "Keel/Log.h"

namespace Keel::Lzma {
namespace {

enum Message : uint32_t {
  kBoundOverflow = 1,
  kEncoderInit = 2,
  kEncode = 3,
  kOutputFull = 4,
  kDecoderInit = 5,
  kDecode = 6,
  kTooLong = 7,
  kTooShort = 8,
  kTrailingBytes = 9,
  kNoCheck = 10,
};

// Input per xz block of the multi-threaded encoder: small enough that a
// 10 MiB event block keeps two cores busy, large enough that the ratio stays
// within a few percent of one-block output.
constexpr uint64_t kBlockSize = 2ull << 20;

// Room for what each further xz block adds over the one-block bound: its
// header (at most 28 bytes with both sizes), check, padding and index record.
constexpr uint64_t kPerBlockOverhead = 64;

// What a second stream adds over the bound of one: its header, footer and
// index, and a block header with both sizes.
constexpr uint64_t kSecondStreamOverhead = 128;

// The window of one-block records. On a synthetic week of a day's mix, one
// window over a 10 MiB block takes 1.04 (2 MiB), 1.14 (4 MiB) and 1.26
// (8 MiB) times the CPU of 2 MiB pieces on two cores, for 0.978, 0.970 and
// 0.968 of the bytes of `xz -6` (bench/payload_forms_bench.cpp).
constexpr uint32_t kOneBlockDictionary = 4u << 20;

// Entries of the table that closes an event block: delta at their width.
constexpr uint32_t kTableEntryWidth = 8;

// Preset 9 needs about 65 MiB to decode; anything asking for more than this
// did not come from Compress.
constexpr uint64_t kDecoderMemoryLimit = 128ull << 20;

// The whole input in one go, until the coder stops asking for more.
lzma_ret RunToEnd(lzma_stream& stream) {
  lzma_ret ret;
  do {
    ret = lzma_code(&stream, LZMA_FINISH);
  } while (ret == LZMA_OK);
  return ret;
}

// Threads when the caller leaves the choice to the library: one per core,
// unless TARN_LZMA_THREADS (read once, 1-256) says otherwise. It is the only
// way to run the store's writer single-threaded, which bench/ingest_bench
// needs to compare the two encoders on the whole write path.
uint32_t DefaultThreads() {
  static const uint32_t threads = [] {
    const char* text = std::getenv("TARN_LZMA_THREADS");
    char* end = nullptr;
    unsigned long value = text != nullptr ? std::strtoul(text, &end, 10) : 0;
    bool usable = end != text && end != nullptr && *end == '\0' && value >= 1 && value <= 256;
    return usable ? static_cast<uint32_t>(value) : lzma_cputhreads();
  }();
  return threads;
}

uint32_t ResolveThreads(uint32_t requested, uint64_t n) {
  uint32_t threads = requested != 0 ? requested : DefaultThreads();
  // More threads than blocks would only reserve encoder memory.
  uint64_t blocks = std::max<uint64_t>(1, (n + kBlockSize - 1) / kBlockSize);
  return static_cast<uint32_t>(std::clamp<uint64_t>(threads, 1, std::min<uint64_t>(blocks, 256)));
}

lzma_ret InitEncoder(lzma_stream& stream, const Options& options, uint64_t n) {
  const bool split = options.table_offset < n;
  uint32_t threads = split && options.one_block ? 1 : ResolveThreads(options.threads, n);
  if (threads == 1 && split) {
    lzma_options_lzma lzma;
    if (lzma_lzma_preset(&lzma, options.preset)) return LZMA_OPTIONS_ERROR;
    lzma.dict_size = std::min(lzma.dict_size, kOneBlockDictionary);
    lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &lzma}, {LZMA_VLI_UNKNOWN, nullptr}};
    return lzma_stream_encoder(&stream, filters, LZMA_CHECK_CRC32);
  }
  if (threads == 1) return lzma_easy_encoder(&stream, options.preset, LZMA_CHECK_CRC32);
  lzma_mt mt{};
  mt.threads = threads;
  mt.block_size = kBlockSize;
  mt.timeout = 0;  // block until done: callers want the whole stream
  mt.preset = options.preset;
  mt.check = LZMA_CHECK_CRC32;
  return lzma_stream_encoder_mt(&stream, &mt);
}

// The table's stream: delta at the entries' width, then LZMA2.
lzma_ret InitTableEncoder(lzma_stream& stream, const Options& options) {
  lzma_options_lzma lzma;
  if (lzma_lzma_preset(&lzma, options.preset)) return LZMA_OPTIONS_ERROR;
  lzma_options_delta delta{};
  delta.type = LZMA_DELTA_TYPE_BYTE;
  delta.dist = kTableEntryWidth;
  lzma_filter filters[] = {{LZMA_FILTER_DELTA, &delta},
                           {LZMA_FILTER_LZMA2, &lzma},
                           {LZMA_VLI_UNKNOWN, nullptr}};
  return lzma_stream_encoder(&stream, filters, LZMA_CHECK_CRC32);
}

bool Fail(Collections::Buffer& out, uint32_t message, uint64_t a, uint64_t b, uint64_t c) {
  out.Reset();
  KEEL_LOG(Log::Error, Log::Lzma, message, a, b, c);
  return false;
}

}  // namespace

uint64_t CompressBound(uint64_t n) {
  uint64_t bound = lzma_stream_buffer_bound(n);
  uint64_t extra = (n / kBlockSize + 1) * kPerBlockOverhead + kSecondStreamOverhead;
  if (bound == 0 || bound > UINT64_MAX - extra) return 0;
  return bound + extra;
}

namespace {

// Encodes `n` bytes at `in` as one stream into `out` from `at` on; the
// stream's size in `written`.
bool EncodeStream(lzma_stream& stream, lzma_ret init, const uint8_t* in, uint64_t n,
                  Collections::Buffer& out, uint64_t at, uint64_t& written,
                  const Options& options) {
  if (init != LZMA_OK) {
    lzma_end(&stream);
    return Fail(out, kEncoderInit, init, options.preset, options.threads);
  }
  stream.next_in = in;
  stream.avail_in = n;
  stream.next_out = out.Data() + at;
  stream.avail_out = out.Size() - at;
  const lzma_ret ret = RunToEnd(stream);
  written = stream.total_out;
  const bool full = stream.avail_out == 0;
  lzma_end(&stream);
  if (ret != LZMA_STREAM_END) return Fail(out, full ? kOutputFull : kEncode, ret, n, written);
  return true;
}

}  // namespace

bool Compress(const void* in, uint64_t n, Collections::Buffer& out, const Options& options) {
  uint64_t bound = CompressBound(n);
  if (bound == 0) return Fail(out, kBoundOverflow, n, 0, 0);
  // A smaller maximum is fine as long as the stream happens to fit.
  if (!out.Resize(std::min(bound, out.Maximum()))) {
    out.Reset();
    return false;  // the buffer logged why
  }
  const auto* bytes = static_cast<const uint8_t*>(in);
  const uint64_t head = std::min(options.table_offset, n);
  uint64_t written = 0;
  lzma_stream stream = LZMA_STREAM_INIT;
  if (!EncodeStream(stream, InitEncoder(stream, options, n), bytes, head, out, 0, written,
                    options)) {
    return false;
  }
  if (head < n) {
    uint64_t table = 0;
    lzma_stream second = LZMA_STREAM_INIT;
    if (!EncodeStream(second, InitTableEncoder(second, options), bytes + head, n - head, out,
                      written, table, options)) {
      return false;
    }
    written += table;
  }
  out.Resize(written);  // shrinking never fails
  return true;
}

bool Uncompress(const void* in, uint64_t n, Collections::Buffer& out, uint64_t expected_size) {
  if (!out.Resize(expected_size)) {
    out.Reset();
    return false;  // the buffer logged why
  }

  lzma_stream stream = LZMA_STREAM_INIT;
  // A stream without a check would let a corrupted block through unnoticed.
  // Streams one after the other decode as one: a block's table has its own.
  uint32_t flags = LZMA_TELL_NO_CHECK | LZMA_TELL_UNSUPPORTED_CHECK | LZMA_CONCATENATED;
  lzma_ret ret = lzma_stream_decoder(&stream, kDecoderMemoryLimit, flags);
  if (ret != LZMA_OK) {
    lzma_end(&stream);
    return Fail(out, kDecoderInit, ret, 0, 0);
  }
  stream.next_in = static_cast<const uint8_t*>(in);
  stream.avail_in = n;
  stream.next_out = out.Data();
  stream.avail_out = expected_size;
  ret = RunToEnd(stream);
  uint64_t produced = stream.total_out;
  uint64_t left_in = stream.avail_in;
  bool full = stream.avail_out == 0;
  lzma_end(&stream);

  if (ret == LZMA_NO_CHECK || ret == LZMA_UNSUPPORTED_CHECK) {
    return Fail(out, kNoCheck, ret, n, 0);
  }
  if (ret != LZMA_STREAM_END) {
    // With the output full, the stream simply holds more than expected.
    bool too_long = full && ret == LZMA_BUF_ERROR;
    return Fail(out, too_long ? kTooLong : kDecode, ret, produced, expected_size);
  }
  if (produced != expected_size) return Fail(out, kTooShort, ret, produced, expected_size);
  if (left_in != 0) return Fail(out, kTrailingBytes, ret, left_in, n);
  // Zero bytes behind the last stream would be legal padding in an .xz
  // file; every byte of a stored payload is a stream's, so they are not.
  const auto* bytes = static_cast<const uint8_t*>(in);
  if (n < 2 || bytes[n - 2] != 'Y' || bytes[n - 1] != 'Z') {
    return Fail(out, kTrailingBytes, ret, 0, n);
  }
  return true;
}

}  // namespace Keel::Lzma
