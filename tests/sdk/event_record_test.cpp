// Event records as the SDK builds and reads them. Arbitrary records read
// through every table's columns, each an exact-size copy so that any read
// past the record is caught, are in fuzz/osquery_fuzz.cpp.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/EventHeader.h"
#include "Tarn/Events/EventReader.h"
#include "support/log_capture.h"

namespace Tarn::Events {
namespace {

// A layout with every slot kind, present and empty, as a generated table
// would have it.
constexpr uint32_t kU32 = 24, kU64 = 28, kText = 36, kAddr4 = 38, kTexts = 40, kNumbers = 44,
                   kEmptyText = 48, kEmptyAddr = 50, kEmptyTexts = 52, kEmptyNumbers = 56,
                   kAddr6 = 60, kFixedEnd = 62;

const uint8_t kV6[16] = {0x20, 0x01, 0x0d, 0xb8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

std::vector<uint8_t> BuildFullRecord() {
  DynamicEventBuilder b;
  const std::vector<std::string_view> texts = {"first", "", "third"};
  const uint64_t numbers[] = {1, 0xFFFFFFFFFFFFFFFFull, 42};
  EXPECT_TRUE(b.Begin(17, 3, 1700000000123ull));
  EXPECT_TRUE(b.AddUInt32(0xDEADBEEF));
  EXPECT_TRUE(b.AddUInt64(0x0102030405060708ull));
  EXPECT_TRUE(b.AddText("C:\\bin\\tool.exe"));
  EXPECT_TRUE(b.AddAddress(Address::V4(192, 168, 1, 20)));
  EXPECT_TRUE(b.AddTextList(texts));
  EXPECT_TRUE(b.AddNumberList(numbers));
  EXPECT_TRUE(b.AddText(""));
  EXPECT_TRUE(b.AddEmptyAddress());
  EXPECT_TRUE(b.AddTextList({}));
  EXPECT_TRUE(b.AddNumberList({}));
  EXPECT_TRUE(b.AddAddress(Address::V6(kV6)));
  EXPECT_TRUE(b.Finish());
  return std::vector<uint8_t>(b.Data(), b.Data() + b.Size());
}

TEST(EventRecord, EverySlotKindRoundTrips) {
  std::vector<uint8_t> record = BuildFullRecord();
  EventReader r(record.data(), record.size());
  ASSERT_TRUE(r.Valid());
  EXPECT_EQ(r.Size(), record.size());
  EXPECT_EQ(r.UInt32(kU32), 0xDEADBEEFu);
  EXPECT_EQ(r.UInt64(kU64), 0x0102030405060708ull);
  EXPECT_EQ(r.Text(kText), "C:\\bin\\tool.exe");

  Address a;
  ASSERT_TRUE(r.ReadAddress(kAddr4, a));
  EXPECT_EQ(a, Address::V4(192, 168, 1, 20));
  ASSERT_TRUE(r.ReadAddress(kAddr6, a));
  EXPECT_EQ(a, Address::V6(kV6));

  auto texts = r.Texts(kTexts);
  ASSERT_EQ(texts.Count(), 3u);
  EXPECT_EQ(texts.At(0), "first");
  EXPECT_EQ(texts.At(1), "");
  EXPECT_EQ(texts.At(2), "third");
  EXPECT_EQ(texts.At(3), "");
  auto numbers = r.Numbers(kNumbers);
  ASSERT_EQ(numbers.Count(), 3u);
  EXPECT_EQ(numbers.At(1), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ(numbers.At(2), 42u);

  // Empty values are written as offset 0 and read back empty.
  EXPECT_EQ(r.UInt16(kEmptyText), 0u);
  EXPECT_EQ(r.Text(kEmptyText), "");
  EXPECT_FALSE(r.ReadAddress(kEmptyAddr, a));
  EXPECT_TRUE(r.Texts(kEmptyTexts).Empty());
  EXPECT_TRUE(r.Numbers(kEmptyNumbers).Empty());
  EXPECT_EQ(r.UInt32(kEmptyTexts), 0u);
  // The variable part starts right after the fixed part, in Add order.
  EXPECT_EQ(r.UInt16(kText), kFixedEnd);
  // A slot past the fixed part of an older, shorter version reads empty.
  EXPECT_EQ(r.UInt64(record.size() - 4), 0u);
}

TEST(EventRecord, HeaderIsByteExact) {
  DynamicEventBuilder b;
  ASSERT_TRUE(b.Begin(0x155, 0x0203, 0x1122334455667788ull));
  b.SetDoNotStore(true);
  ASSERT_TRUE(b.AddUInt32(7));
  ASSERT_TRUE(b.Finish());
  // clang-format off
  const uint8_t expected[28] = {
      0x55, 0x01, 0, 0,                                // type word
      0, 0, 0, 0x04,                                   // flags: do not store
      0x03, 0x02,                                      // version
      28, 0,                                           // size
      0, 0, 0, 0,                                      // reserved
      0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // time stamp
      7, 0, 0, 0};                                     // first slot
  // clang-format on
  ASSERT_EQ(b.Size(), sizeof expected);
  EXPECT_EQ(std::memcmp(b.Data(), expected, sizeof expected), 0);

  EventHeader h(b.Data(), b.Size());
  ASSERT_TRUE(h.Valid());
  EXPECT_EQ(h.TypeId(), 0x155u);
  EXPECT_TRUE(h.DoNotStore());
  EXPECT_EQ(h.Version(), 0x0203);
  EXPECT_EQ(h.Size(), 28);
  EXPECT_EQ(h.TimeStampMs(), 0x1122334455667788ull);
  EXPECT_EQ(b.Event().TypeId(), 0x155u);
  EXPECT_TRUE(b.Event().DoNotStore());

  // One byte short, one byte long, or under a header: not this record.
  EXPECT_FALSE(EventHeader(b.Data(), b.Size() - 1).Valid());
  EXPECT_FALSE(EventHeader(b.Data(), b.Size() + 1).Valid());
  EXPECT_FALSE(EventHeader(b.Data(), 23).Valid());
  EXPECT_EQ(EventHeader(b.Data(), 23).TypeId(), 0u);
}

TEST(EventRecord, BuilderRefusesOversizeAndMisuse) {
  tarn::test::LogCapture log;
  DynamicEventBuilder b;
  // 24 header + 2 slot + text + NUL: 65,508 text bytes fill a record exactly.
  std::string text(65508, 'x');
  ASSERT_TRUE(b.Begin(1, 1, 0));
  ASSERT_TRUE(b.AddText(text));
  ASSERT_TRUE(b.Finish());
  EXPECT_EQ(b.Size(), 65535u);
  EXPECT_EQ(EventReader(b.Data(), b.Size()).Text(24).size(), text.size());

  text.push_back('x');
  ASSERT_TRUE(b.Begin(1, 1, 0));
  EXPECT_FALSE(b.AddText(text));
  EXPECT_TRUE(b.Failed());
  EXPECT_FALSE(b.AddUInt32(1));  // refusal sticks until the next Begin
  EXPECT_FALSE(b.Finish());
  EXPECT_EQ(b.Data(), nullptr);
  EXPECT_EQ(log.Count(Keel::Log::Error), 1u);

  std::vector<uint64_t> many(8200, 5);  // 65,600 bytes of values
  ASSERT_TRUE(b.Begin(1, 1, 0));
  EXPECT_FALSE(b.AddNumberList(many));

  EXPECT_FALSE(b.Begin(1024, 1, 0));  // type ids have 10 bits
  DynamicEventBuilder fresh;
  EXPECT_FALSE(fresh.AddUInt32(1));  // no Begin
  ASSERT_TRUE(b.Begin(2, 1, 0));
  ASSERT_TRUE(b.Finish());
  EXPECT_FALSE(b.AddUInt32(1));  // after Finish: refused, the record kept
  EXPECT_EQ(b.Size(), 24u);
}

TEST(EventRecord, TextIsCutAtEmbeddedNul) {
  DynamicEventBuilder b;
  ASSERT_TRUE(b.Begin(1, 1, 0));
  ASSERT_TRUE(b.AddText(std::string_view("ab\0cd", 5)));
  ASSERT_TRUE(b.AddTextList({std::string_view("\0x", 2), "y"}));
  ASSERT_TRUE(b.Finish());
  EventReader r(b.Data(), b.Size());
  EXPECT_EQ(r.Text(24), "ab");
  EXPECT_EQ(r.Texts(26).At(0), "");
  EXPECT_EQ(r.Texts(26).At(1), "y");
  EXPECT_EQ(b.Size(), 24u + 6 + 3 + 4 + 2);  // slots, "ab\0", array, "y\0"
}

// Overwrites a u16 inside a copy of a record.
std::vector<uint8_t> With16(std::vector<uint8_t> record, size_t offset, uint16_t value) {
  std::memcpy(record.data() + offset, &value, 2);
  return record;
}

EventReader Read(const std::vector<uint8_t>& record) {
  return EventReader(record.data(), record.size());
}

TEST(EventRecord, HostileOffsetsAndCountsReadEmpty) {
  const std::vector<uint8_t> good = BuildFullRecord();
  const uint16_t size = static_cast<uint16_t>(good.size());
  Address a;
  EXPECT_EQ(Read(With16(good, kText, size)).Text(kText), "");  // past the end
  EXPECT_EQ(Read(With16(good, kText, 10)).Text(kText), "");    // inside the header

  // Cutting the size field by one drops the v6 address's last byte; the
  // rest of the record still reads.
  auto cut_short = With16(good, 10, size - 1);
  ASSERT_TRUE(Read(cut_short).Valid());
  EXPECT_FALSE(Read(cut_short).ReadAddress(kAddr6, a));
  EXPECT_EQ(Read(cut_short).Texts(kTexts).At(2), "third");

  // A text whose NUL lies beyond the size field is no text.
  DynamicEventBuilder b;
  ASSERT_TRUE(b.Begin(1, 1, 0) && b.AddText("tail") && b.Finish());
  std::vector<uint8_t> tail(b.Data(), b.Data() + b.Size());
  EXPECT_EQ(Read(tail).Text(24), "tail");
  EXPECT_EQ(Read(With16(tail, 10, static_cast<uint16_t>(tail.size() - 1))).Text(24), "");

  EXPECT_FALSE(Read(With16(good, kAddr6, size - 10)).ReadAddress(kAddr6, a));
  auto flagged = good;
  flagged[Read(good).UInt16(kAddr4)] = 1;             // v4 bytes, v6 flag
  ASSERT_TRUE(Read(flagged).ReadAddress(kAddr4, a));  // still inside the record: read
  EXPECT_TRUE(a.ipv6);

  EXPECT_TRUE(Read(With16(good, kTexts, 0xFFFF)).Texts(kTexts).Empty());
  EXPECT_TRUE(Read(With16(good, kNumbers, 6)).Numbers(kNumbers).Empty());    // 48 bytes; 41 left
  EXPECT_EQ(Read(With16(good, kNumbers, 5)).Numbers(kNumbers).Count(), 5u);  // fits exactly
  EXPECT_TRUE(Read(With16(good, kNumbers + 2, 0)).Numbers(kNumbers).Empty());

  // One bad item offset spoils that item only.
  auto bad_item = With16(good, Read(good).UInt16(kTexts + 2), 0xFFF0);
  auto items = Read(bad_item).Texts(kTexts);
  ASSERT_EQ(items.Count(), 3u);
  EXPECT_EQ(items.At(0), "");
  EXPECT_EQ(items.At(2), "third");

  // A size field that claims more than there is, or less than a header,
  // makes the whole record empty.
  for (uint16_t lie : {uint16_t(size + 1), uint16_t(23), uint16_t(0)}) {
    auto lying = With16(good, 10, lie);
    EventReader r = Read(lying);
    EXPECT_FALSE(r.Valid());
    EXPECT_EQ(r.UInt32(kU32), 0u);
    EXPECT_EQ(r.Text(kText), "");
    EXPECT_TRUE(r.Texts(kTexts).Empty());
  }
  EXPECT_FALSE(EventReader(nullptr, 100).Valid());
}

}  // namespace
}  // namespace Tarn::Events
