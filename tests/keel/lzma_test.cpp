#include "Keel/Lzma.h"

#include <gtest/gtest.h>
#include <lzma.h>

#include <string>
#include <utility>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "support/log_capture.h"
#include "support/xz_streams.h"
#include "samples/EventLikeRecords.h"

namespace {

using Keel::Collections::Buffer;
using Tarn::Samples::EventLikeBytes;

std::vector<uint8_t> Bytes(const Buffer& buffer) {
  return std::vector<uint8_t>(buffer.Data(), buffer.Data() + buffer.Size());
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

class LzmaRoundTrip : public ::testing::TestWithParam<uint32_t> {};

TEST_P(LzmaRoundTrip, TenMebibytesOfEventsComeBackExactly) {
  const uint32_t threads = GetParam();
  std::vector<uint8_t> raw = EventLikeBytes(10 << 20);
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
  lzma_index* index = tarn::test::DecodeLastIndex(stream, footer);
  ASSERT_NE(index, nullptr);
  EXPECT_EQ(lzma_index_block_count(index), threads == 1 ? 1u : 5u);
  EXPECT_EQ(lzma_index_uncompressed_size(index), raw.size());
  EXPECT_EQ(footer.check, LZMA_CHECK_CRC32);
  lzma_index_end(index, nullptr);

  decoded.PushFill(0xAB, 3 << 20);  // must be replaced too
  ASSERT_TRUE(Keel::Lzma::Uncompress(stream.data(), stream.size(), decoded, raw.size()));
  EXPECT_TRUE(Bytes(decoded) == raw);
  EXPECT_TRUE(log.Empty());
}

INSTANTIATE_TEST_SUITE_P(SingleAndMultiThreaded, LzmaRoundTrip, ::testing::Values(1u, 2u));

// A raw block of records and, behind them, a table of 8-byte entries whose
// words climb slowly, as an event block's do.
std::vector<uint8_t> RecordsAndTable(uint64_t records, uint64_t& table_offset) {
  std::vector<uint8_t> raw = EventLikeBytes(records, 3);
  table_offset = raw.size();
  for (uint32_t i = 0; i < records / 300; ++i) {
    const uint32_t words[2] = {i * 300 + (i * 7919) % 97, 36'000 + i / 40};
    const auto* bytes = reinterpret_cast<const uint8_t*>(words);
    raw.insert(raw.end(), bytes, bytes + sizeof(words));
  }
  return raw;
}

// The table behind a delta filter is a stream of its own; the records one
// xz block when there is time, 2 MiB blocks on every thread when there is
// not. Whatever the form, the stock xz program and Uncompress both read back
// exactly the input, and the table's stream is smaller than its share of one.
TEST(LzmaTest, ATableBehindADeltaFilterIsAStreamOfItsOwnThatEveryXzDecoderReads) {
  uint64_t table_offset = 0;
  const std::vector<uint8_t> raw = RecordsAndTable(5 << 20, table_offset);
  Buffer whole;
  ASSERT_TRUE(Keel::Lzma::Compress(raw.data(), raw.size(), whole, {6, 1}));
  struct Form {
    bool one_block;
    uint32_t threads;
    std::vector<uint64_t> blocks;  // per stream, the table's first
  };
  for (const Form& form : {Form{true, 2, {1, 1}}, Form{false, 2, {1, 3}}, Form{false, 1, {1, 1}}}) {
    SCOPED_TRACE(std::string(form.one_block ? "one block" : "pieces") + ", threads " +
                 std::to_string(form.threads));
    Keel::Lzma::Options options{6, form.threads};
    options.table_offset = table_offset;
    options.one_block = form.one_block;
    Buffer split, decoded;
    ASSERT_TRUE(Keel::Lzma::Compress(raw.data(), raw.size(), split, options));
    EXPECT_LE(split.Size(), Keel::Lzma::CompressBound(raw.size()));
    const std::vector<uint8_t> streams = Bytes(split);
    EXPECT_EQ(tarn::test::BlocksPerStream(streams), form.blocks);
    bool xz_read = false;
    EXPECT_TRUE(tarn::test::XzDecoded(streams, xz_read) == raw);
    EXPECT_TRUE(xz_read);
    ASSERT_TRUE(Keel::Lzma::Uncompress(streams.data(), streams.size(), decoded, raw.size()));
    EXPECT_TRUE(Bytes(decoded) == raw);
    if (form.one_block) {
      EXPECT_LT(split.Size(), whole.Size());
    }
    // Damage in the table's stream is found as in the records'.
    for (size_t pos : {streams.size() - 30, streams.size() / 2, size_t{20}}) {
      std::vector<uint8_t> damaged = streams;
      damaged[pos] ^= 0x04;
      ExpectRejected(damaged, raw.size());
    }
    ExpectRejected(std::vector<uint8_t>(streams.begin(), streams.end() - 1), raw.size());
  }
}

TEST(LzmaTest, EmptyInputRoundTrips) {
  Buffer compressed, decoded;
  ASSERT_TRUE(Keel::Lzma::Compress(nullptr, 0, compressed));
  EXPECT_GT(compressed.Size(), 0u);  // still a complete stream
  ASSERT_TRUE(Keel::Lzma::Uncompress(compressed.Data(), compressed.Size(), decoded, 0));
  EXPECT_EQ(decoded.Size(), 0u);
  ExpectRejected(Bytes(compressed), 1);
}

TEST(LzmaTest, OutputNeverExceedsTheBoundEvenForIncompressibleInput) {
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

// Every way a stored payload can differ from what Compress wrote: a flipped
// byte anywhere, a cut, trailing bytes, a stream without a check, or a raw
// size that disagrees.
TEST(LzmaTest, DamagedOrMismatchedStreamsAreRejected) {
  const std::vector<uint8_t> raw = EventLikeBytes(1 << 20, 7);
  Buffer out;
  ASSERT_TRUE(Keel::Lzma::Compress(raw.data(), raw.size(), out, {6, 1}));
  const std::vector<uint8_t> good = Bytes(out);
  const size_t n = good.size();
  std::vector<std::pair<std::string, std::vector<uint8_t>>> damaged;

  // Stream header, block header, compressed data, check, index and footer.
  for (size_t pos :
       {size_t{0}, size_t{8}, size_t{14}, n / 3, n / 2, n - 40, n - 20, n - 6, n - 1}) {
    damaged.emplace_back("flipped " + std::to_string(pos), good);
    damaged.back().second[pos] ^= 0x10;
  }
  for (size_t keep : {size_t{0}, size_t{11}, size_t{100}, n / 2, n - 1}) {
    damaged.emplace_back("cut to " + std::to_string(keep),
                         std::vector<uint8_t>(good.begin(), good.begin() + keep));
  }
  // Four zero bytes would be legal stream padding in a file; here they are
  // not. A second stream behind the first decodes to more than was stored.
  damaged.emplace_back("garbage", good);
  damaged.back().second.push_back('x');
  damaged.emplace_back("padding", good);
  damaged.back().second.insert(damaged.back().second.end(), 4, 0);
  damaged.emplace_back("twice", good);
  damaged.back().second.insert(damaged.back().second.end(), good.begin(), good.end());

  std::vector<uint8_t> unchecked(Keel::Lzma::CompressBound(raw.size()));
  size_t size = 0;
  ASSERT_EQ(lzma_easy_buffer_encode(6, LZMA_CHECK_NONE, nullptr, raw.data(), raw.size(),
                                    unchecked.data(), &size, unchecked.size()),
            LZMA_OK);
  unchecked.resize(size);
  damaged.emplace_back("no check", unchecked);

  for (const auto& [name, stream] : damaged) {
    SCOPED_TRACE(name);
    ExpectRejected(stream, raw.size());
  }
  for (uint64_t wrong : {raw.size() + 1, raw.size() - 1, size_t{0}}) {
    SCOPED_TRACE(wrong);
    ExpectRejected(good, wrong);
  }
}

TEST(LzmaTest, CompressFailuresAreLoggedAndLeaveOutputEmpty) {
  const std::vector<uint8_t> raw = EventLikeBytes(1 << 20, 7);
  tarn::test::LogCapture log;
  Buffer small;
  ASSERT_TRUE(small.Create(0, 64));  // far below what 1 MiB needs
  EXPECT_FALSE(Keel::Lzma::Compress(raw.data(), raw.size(), small));
  EXPECT_EQ(small.Size(), 0u);
  EXPECT_EQ(log.CountFrom(Keel::Log::Lzma, Keel::Log::Error), 1u);

  log.Clear();
  Buffer out;
  EXPECT_FALSE(Keel::Lzma::Compress(raw.data(), 1000, out, {42, 1}));  // no such preset
  EXPECT_EQ(out.Size(), 0u);
  EXPECT_EQ(log.CountFrom(Keel::Log::Lzma, Keel::Log::Error), 1u);
  EXPECT_EQ(log.Records()[0].values[0], static_cast<uint64_t>(LZMA_OPTIONS_ERROR));
}

}  // namespace
