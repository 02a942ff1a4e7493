#include "Keel/Collections/Buffer.h"

#include <gtest/gtest.h>

#include <cstring>

#include "Keel/Collections/StreamBuffer.h"
#include "support/log_capture.h"

namespace Keel::Collections {
namespace {

TEST(BufferTest, GrowsByPolicyUpToItsMaximumAndNoFurther) {
  tarn::test::LogCapture log;
  Buffer buffer;
  EXPECT_FALSE(buffer.Create(100, 10));  // initial above maximum
  EXPECT_FALSE(buffer.IsCreated());
  EXPECT_EQ(log.Count(Log::Error), 1u);

  ASSERT_TRUE(buffer.Create(4, 20, GrowType::Percent, 100));
  EXPECT_EQ(buffer.Capacity(), 4u);
  ASSERT_TRUE(buffer.Push("abcd", 4));
  ASSERT_TRUE(buffer.PushUInt8('e'));
  EXPECT_GE(buffer.Capacity(), 5u);
  EXPECT_LE(buffer.Capacity(), 20u);
  ASSERT_TRUE(buffer.PushFill('x', 15));
  log.Clear();
  EXPECT_FALSE(buffer.PushUInt8('y'));
  EXPECT_FALSE(buffer.Reserve(21));
  EXPECT_FALSE(buffer.Resize(21));
  EXPECT_EQ(log.Count(Log::Error), 3u);
  // A refused push leaves the content as it was.
  EXPECT_EQ(buffer.Size(), 20u);
  EXPECT_EQ(std::memcmp(buffer.Data(), "abcdexxxxxxxxxxxxxxx", 20), 0);

  // size + length would wrap a 64-bit sum without the careful comparison.
  ASSERT_TRUE(buffer.Create(0, 1000, GrowType::Linear, 10));
  ASSERT_TRUE(buffer.PushUInt64(1));
  EXPECT_GE(buffer.Capacity(), 8u);
  EXPECT_FALSE(buffer.Push("x", ~0ull));
  EXPECT_EQ(buffer.Size(), 8u);
}

TEST(BufferTest, IntegersArePushedLittleEndianAndReadBack) {
  Buffer buffer;
  ASSERT_TRUE(buffer.Create(2));
  ASSERT_TRUE(buffer.PushUInt16(0x0102));
  ASSERT_TRUE(buffer.PushUInt32(0x03040506));
  ASSERT_TRUE(buffer.PushUInt64(0x0708090A0B0C0D0Eull));
  const uint8_t expected[] = {2, 1, 6, 5, 4, 3, 0x0E, 0x0D, 0x0C, 0x0B, 0x0A, 9, 8, 7};
  ASSERT_EQ(buffer.Size(), sizeof expected);
  EXPECT_EQ(std::memcmp(buffer.Data(), expected, sizeof expected), 0);

  StreamBuffer in(buffer);
  uint16_t a;
  uint32_t b;
  uint64_t c;
  ASSERT_TRUE(in.ReadUInt16(a) && in.ReadUInt32(b) && in.ReadUInt64(c));
  EXPECT_EQ(a, 0x0102);
  EXPECT_EQ(b, 0x03040506u);
  EXPECT_EQ(c, 0x0708090A0B0C0D0Eull);
  EXPECT_EQ(in.Remaining(), 0u);
}

TEST(StreamBufferTest, ShortReadsFailWithoutMovingOrWriting) {
  const uint8_t bytes[] = {1, 2, 3};
  StreamBuffer in(bytes, sizeof bytes);
  uint32_t value = 0xDEADBEEF;
  EXPECT_FALSE(in.ReadUInt32(value));
  EXPECT_EQ(value, 0xDEADBEEFu);
  EXPECT_EQ(in.Position(), 0u);
  EXPECT_TRUE(in.Skip(2));
  EXPECT_FALSE(in.Skip(2));
  EXPECT_EQ(in.Peek(2), nullptr);
  ASSERT_NE(in.Peek(1), nullptr);
  EXPECT_EQ(*in.Peek(1), 3);
  EXPECT_FALSE(in.Seek(4));
  EXPECT_TRUE(in.Seek(3));
  uint8_t byte;
  EXPECT_FALSE(in.ReadUInt8(byte));
}

TEST(BufferTest, MoveLeavesTheSourceEmpty) {
  Buffer a;
  ASSERT_TRUE(a.Create(8));
  ASSERT_TRUE(a.Push("hello", 5));
  Buffer b = std::move(a);
  EXPECT_EQ(b.Size(), 5u);
  EXPECT_EQ(a.Size(), 0u);  // NOLINT: checking the moved-from state on purpose
  EXPECT_EQ(a.Data(), nullptr);
  Buffer c;
  ASSERT_TRUE(c.Assign(b));
  EXPECT_EQ(std::memcmp(c.Data(), "hello", 5), 0);
}

}  // namespace
}  // namespace Keel::Collections
