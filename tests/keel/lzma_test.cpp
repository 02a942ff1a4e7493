#include "Keel/Lzma.h"

#include <gtest/gtest.h>
#include <lzma.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "support/log_capture.h"

namespace {

using Keel::Collections::Buffer;

// Bytes shaped like a block of stored events: a 24-byte header with a type,
// size and rising millisecond clock, numeric slots, then paths, command lines,
// user names and hash texts. Repetitive like real events, but not trivially.
std::vector<uint8_t> EventLikeRecords(size_t size, uint32_t seed = 1) {
  static const char* kUsers[] = {"root", "svc-backup", "alice", "www-data", "postgres"};
  static const char* kBinaries[] = {"/usr/bin/python3", "/usr/sbin/sshd", "/usr/bin/curl",
                                    "/opt/agent/bin/updater", "/usr/lib/systemd/systemd-journald"};
  std::vector<uint8_t> out;
  out.reserve(size + 1024);
  uint64_t state = seed, clock_ms = 1795313392000ull;
  auto next = [&state] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state >> 33);
  };
  auto put = [&out](uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  while (out.size() < size) {
    char text[512];
    uint32_t pid = 1000 + next() % 30000, id = next() % 64;
    int n = std::snprintf(text, sizeof(text),
                          "%s%c%s --job %u --queue jobs-%u --config /etc/agent/conf.d/%02u.yaml%c"
                          "/var/lib/agent/cache/%08x/%u.tmp%c%s%c",
                          kBinaries[id % 5], 0, kBinaries[id % 5], next() % 100000, id, id % 7, 0,
                          next(), pid, 0, kUsers[next() % 5], 0);
    for (int i = 0; i < 64; ++i) text[n++] = "0123456789abcdef"[next() % 16];
    text[n++] = 0;
    size_t start = out.size();
    clock_ms += next() % 40;
    put(2 + id % 40, 4);
    put(0, 4);
    put(1, 2);
    put(0, 2);  // size, patched below
    put(0, 4);
    put(clock_ms, 8);
    put(pid, 4);
    put(pid - 1 - next() % 50, 4);
    put(next() % 4096 * 512, 8);
    out.insert(out.end(), text, text + n);
    uint16_t length = static_cast<uint16_t>(out.size() - start);
    std::memcpy(&out[start + 10], &length, 2);
  }
  out.resize(size);
  return out;
}

std::vector<uint8_t> Bytes(const Buffer& buffer) {
  return std::vector<uint8_t>(buffer.Data(), buffer.Data() + buffer.Size());
}

// The xz index of a whole stream, read from its footer, or null.
lzma_index* DecodeIndex(const std::vector<uint8_t>& stream, lzma_stream_flags& footer) {
  if (stream.size() < 2 * LZMA_STREAM_HEADER_SIZE) return nullptr;
  const uint8_t* end = stream.data() + stream.size();
  if (lzma_stream_footer_decode(&footer, end - LZMA_STREAM_HEADER_SIZE) != LZMA_OK) return nullptr;
  const uint8_t* index = end - LZMA_STREAM_HEADER_SIZE - footer.backward_size;
  lzma_index* decoded = nullptr;
  uint64_t memlimit = UINT64_MAX;
  size_t pos = 0;
  if (lzma_index_buffer_decode(&decoded, &memlimit, nullptr, index, &pos, footer.backward_size) !=
      LZMA_OK) {
    return nullptr;
  }
  return decoded;
}

class LzmaTest : public ::testing::Test {
 protected:
  // A compressed 1 MiB sample for the failure cases, made once.
  static void SetUpTestSuite() {
    raw_ = new std::vector<uint8_t>(EventLikeRecords(1 << 20, 7));
    Buffer out;
    ASSERT_TRUE(Keel::Lzma::Compress(raw_->data(), raw_->size(), out, {6, 1}));
    stream_ = new std::vector<uint8_t>(Bytes(out));
  }
  static void TearDownTestSuite() {
    delete raw_;
    delete stream_;
  }

  // Decoding must fail, leave `out` empty and write one Lzma error record.
  void ExpectRejected(const std::vector<uint8_t>& stream, uint64_t expected_size) {
    tarn::test::LogCapture log;
    Buffer out;
    out.Push("stale", 5);
    EXPECT_FALSE(Keel::Lzma::Uncompress(stream.data(), stream.size(), out, expected_size));
    EXPECT_EQ(out.Size(), 0u);
    EXPECT_EQ(log.CountFrom(Keel::Log::Lzma, Keel::Log::Error), 1u);
  }

  static std::vector<uint8_t>* raw_;
  static std::vector<uint8_t>* stream_;
};

std::vector<uint8_t>* LzmaTest::raw_ = nullptr;
std::vector<uint8_t>* LzmaTest::stream_ = nullptr;

class LzmaRoundTrip : public ::testing::TestWithParam<uint32_t> {};

TEST_P(LzmaRoundTrip, TenMebibytesOfEventsComeBackExactly) {
  const uint32_t threads = GetParam();
  std::vector<uint8_t> raw = EventLikeRecords(10 << 20);
  tarn::test::LogCapture log;
  Buffer compressed, decoded;
  compressed.Push("old content", 11);  // must be replaced, not appended to
  ASSERT_TRUE(Keel::Lzma::Compress(raw.data(), raw.size(), compressed, {6, threads}));
  EXPECT_LE(compressed.Size(), Keel::Lzma::CompressBound(raw.size()));
  // Records of this kind shrink well; a broken encoder setup would not.
  EXPECT_LT(compressed.Size(), raw.size() / 3);

  // One xz block per 2 MiB with threads, one block without; CRC32 either way.
  std::vector<uint8_t> stream = Bytes(compressed);
  lzma_stream_flags footer;
  lzma_index* index = DecodeIndex(stream, footer);
  ASSERT_NE(index, nullptr);
  EXPECT_EQ(lzma_index_block_count(index), threads == 1 ? 1u : 5u);
  EXPECT_EQ(lzma_index_uncompressed_size(index), raw.size());
  EXPECT_EQ(footer.check, LZMA_CHECK_CRC32);
  lzma_index_end(index, nullptr);

  ASSERT_TRUE(Keel::Lzma::Uncompress(stream.data(), stream.size(), decoded, raw.size()));
  EXPECT_TRUE(Bytes(decoded) == raw);
  EXPECT_TRUE(log.Empty());
}

INSTANTIATE_TEST_SUITE_P(SingleAndMultiThreaded, LzmaRoundTrip, ::testing::Values(1u, 2u));

TEST_F(LzmaTest, EmptyInputRoundTrips) {
  Buffer compressed, decoded;
  ASSERT_TRUE(Keel::Lzma::Compress(nullptr, 0, compressed));
  EXPECT_GT(compressed.Size(), 0u);  // still a complete stream
  ASSERT_TRUE(Keel::Lzma::Uncompress(compressed.Data(), compressed.Size(), decoded, 0));
  EXPECT_EQ(decoded.Size(), 0u);
  ExpectRejected(Bytes(compressed), 1);
}

TEST_F(LzmaTest, OutputNeverExceedsTheBoundEvenForIncompressibleInput) {
  std::vector<uint8_t> noise(5 << 20);
  uint64_t state = 99;
  for (auto& byte : noise) {
    state = state * 6364136223846793005ull + 1;
    byte = static_cast<uint8_t>(state >> 56);
  }
  for (uint32_t threads : {1u, 2u}) {
    Buffer compressed, decoded;
    ASSERT_TRUE(Keel::Lzma::Compress(noise.data(), noise.size(), compressed, {0, threads}));
    EXPECT_GT(compressed.Size(), noise.size());
    EXPECT_LE(compressed.Size(), Keel::Lzma::CompressBound(noise.size()));
    ASSERT_TRUE(
        Keel::Lzma::Uncompress(compressed.Data(), compressed.Size(), decoded, noise.size()));
    EXPECT_TRUE(Bytes(decoded) == noise);
  }
}

TEST_F(LzmaTest, UncompressReplacesPreviousContent) {
  Buffer decoded;
  decoded.PushFill(0xAB, 3 << 20);
  ASSERT_TRUE(Keel::Lzma::Uncompress(stream_->data(), stream_->size(), decoded, raw_->size()));
  EXPECT_TRUE(Bytes(decoded) == *raw_);
}

TEST_F(LzmaTest, AnyFlippedByteIsRejected) {
  // Stream header, block header, compressed data, check, index and footer.
  const size_t n = stream_->size();
  for (size_t pos :
       {size_t{0}, size_t{8}, size_t{14}, n / 3, n / 2, n - 40, n - 20, n - 6, n - 1}) {
    SCOPED_TRACE(pos);
    std::vector<uint8_t> damaged = *stream_;
    damaged[pos] ^= 0x10;
    ExpectRejected(damaged, raw_->size());
  }
}

TEST_F(LzmaTest, TruncatedStreamIsRejected) {
  for (size_t keep :
       {size_t{0}, size_t{11}, size_t{100}, stream_->size() / 2, stream_->size() - 1}) {
    SCOPED_TRACE(keep);
    ExpectRejected(std::vector<uint8_t>(stream_->begin(), stream_->begin() + keep), raw_->size());
  }
}

TEST_F(LzmaTest, WrongExpectedSizeIsRejected) {
  ExpectRejected(*stream_, raw_->size() + 1);
  ExpectRejected(*stream_, raw_->size() - 1);
  ExpectRejected(*stream_, 0);
}

TEST_F(LzmaTest, BytesAfterTheStreamAreRejected) {
  std::vector<uint8_t> garbage = *stream_;
  garbage.push_back('x');
  ExpectRejected(garbage, raw_->size());
  // Four zero bytes would be legal stream padding in a file; here they are not.
  std::vector<uint8_t> padded = *stream_;
  padded.insert(padded.end(), 4, 0);
  ExpectRejected(padded, raw_->size());
  // A second stream behind the first is just more trailing bytes.
  std::vector<uint8_t> twice = *stream_;
  twice.insert(twice.end(), stream_->begin(), stream_->end());
  ExpectRejected(twice, raw_->size());
}

TEST_F(LzmaTest, StreamWithoutCheckIsRejected) {
  std::vector<uint8_t> unchecked(Keel::Lzma::CompressBound(raw_->size()));
  size_t size = 0;
  ASSERT_EQ(lzma_easy_buffer_encode(6, LZMA_CHECK_NONE, nullptr, raw_->data(), raw_->size(),
                                    unchecked.data(), &size, unchecked.size()),
            LZMA_OK);
  unchecked.resize(size);
  ExpectRejected(unchecked, raw_->size());
}

TEST_F(LzmaTest, CompressFailuresAreLoggedAndLeaveOutputEmpty) {
  tarn::test::LogCapture log;
  Buffer small;
  ASSERT_TRUE(small.Create(0, 64));  // far below what 1 MiB needs
  EXPECT_FALSE(Keel::Lzma::Compress(raw_->data(), raw_->size(), small));
  EXPECT_EQ(small.Size(), 0u);
  EXPECT_EQ(log.CountFrom(Keel::Log::Lzma, Keel::Log::Error), 1u);

  log.Clear();
  Buffer out;
  EXPECT_FALSE(Keel::Lzma::Compress(raw_->data(), 1000, out, {42, 1}));  // no such preset
  EXPECT_EQ(out.Size(), 0u);
  EXPECT_EQ(log.CountFrom(Keel::Log::Lzma, Keel::Log::Error), 1u);
  EXPECT_EQ(log.Records()[0].values[0], static_cast<uint64_t>(LZMA_OPTIONS_ERROR));
}

}  // namespace
