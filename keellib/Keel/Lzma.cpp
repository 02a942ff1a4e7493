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
  uint32_t threads = ResolveThreads(options.threads, n);
  if (threads == 1) return lzma_easy_encoder(&stream, options.preset, LZMA_CHECK_CRC32);
  lzma_mt mt{};
  mt.threads = threads;
  mt.block_size = kBlockSize;
  mt.timeout = 0;  // block until done: callers want the whole stream
  mt.preset = options.preset;
  mt.check = LZMA_CHECK_CRC32;
  return lzma_stream_encoder_mt(&stream, &mt);
}

bool Fail(Collections::Buffer& out, uint32_t message, uint64_t a, uint64_t b, uint64_t c) {
  out.Reset();
  KEEL_LOG(Log::Error, Log::Lzma, message, a, b, c);
  return false;
}

}  // namespace

uint64_t CompressBound(uint64_t n) {
  uint64_t bound = lzma_stream_buffer_bound(n);
  uint64_t extra = (n / kBlockSize + 1) * kPerBlockOverhead;
  if (bound == 0 || bound > UINT64_MAX - extra) return 0;
  return bound + extra;
}

bool Compress(const void* in, uint64_t n, Collections::Buffer& out, const Options& options) {
  uint64_t bound = CompressBound(n);
  if (bound == 0) return Fail(out, kBoundOverflow, n, 0, 0);
  // A smaller maximum is fine as long as the stream happens to fit.
  if (!out.Resize(std::min(bound, out.Maximum()))) {
    out.Reset();
    return false;  // the buffer logged why
  }

  lzma_stream stream = LZMA_STREAM_INIT;
  lzma_ret ret = InitEncoder(stream, options, n);
  if (ret != LZMA_OK) {
    lzma_end(&stream);
    return Fail(out, kEncoderInit, ret, options.preset, options.threads);
  }
  stream.next_in = static_cast<const uint8_t*>(in);
  stream.avail_in = n;
  stream.next_out = out.Data();
  stream.avail_out = out.Size();
  ret = RunToEnd(stream);
  uint64_t written = stream.total_out;
  bool full = stream.avail_out == 0;
  lzma_end(&stream);

  if (ret != LZMA_STREAM_END) {
    return Fail(out, full ? kOutputFull : kEncode, ret, n, written);
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
  uint32_t flags = LZMA_TELL_NO_CHECK | LZMA_TELL_UNSUPPORTED_CHECK;
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
  return true;
}

}  // namespace Keel::Lzma
