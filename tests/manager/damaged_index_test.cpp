// Stores whose index file was damaged into values the writer never makes,
// reopened and walked through the reader. Each case comes from an input
// that once made the reader misbehave.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager/index/Index.h"
#include "reader_fixture.h"

namespace Tarn::Storage {
namespace {

using tarn::test::ReaderStore;
using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;

// Rewrites the event count of the index file's record `record`.
void SetIndexedCount(const std::string& directory, uint32_t record, uint32_t count) {
  const std::string path = directory + "/" + Index::FILENAME;
  std::string bytes = ReadWholeFile(path);
  const size_t packed = Index::kHeaderSize + size_t{record} * Index::kRecordSize + 7;
  ASSERT_LE(packed + 8, bytes.size());
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = value << 8 | static_cast<uint8_t>(bytes[packed + i]);
  value = (value & ~uint64_t{0x1FFFFFF}) | count;
  for (int i = 0; i < 8; ++i) bytes[packed + i] = static_cast<char>(value >> (8 * i));
  WriteWholeFile(path, bytes);
}

// The index keeps 25 bits of event count and a position 24 bits of event
// number: a block counted past 2^24 once made Increment wrap from event
// 0xFFFFFF back to event 0 of the same block, so a walk never ended. A start
// now counts such a block again from its own header, so no position past its
// real events is ever handed out.
constexpr uint32_t kPastNameable = (1u << 24) + 1;

TEST(DamagedIndex, AnOvercountedRecordIsCountedAgainFromItsBlock) {
  ReaderStore store;
  ASSERT_TRUE(store.Open());
  ASSERT_TRUE(store.Block(9000, {10, 11}));
  ASSERT_TRUE(store.Block(9000, {20}));
  ASSERT_TRUE(store.Block(9001, {30}));
  store.Close();
  for (uint32_t record : {0, 1, 2}) SetIndexedCount(store.directory(), record, kPastNameable);
  ASSERT_TRUE(store.Open());
  EventStorageProvider& reader = store.reader();
  auto at = [](uint16_t day, uint32_t block, uint32_t event) {
    return uint64_t{RawIterator(day, block, event)};
  };
  std::vector<uint64_t> walked;
  for (uint64_t p = reader.GetFirstIterVal(); p != RawIterator::Invalid && walked.size() < 10;
       reader.Increment(p)) {
    walked.push_back(p);
  }
  EXPECT_EQ(walked, (std::vector<uint64_t>{at(9000, 0, 0), at(9000, 0, 1), at(9000, 1, 0),
                                            at(9001, 0, 0)}));
  EXPECT_EQ(reader.GetLastIterVal(), at(9001, 0, 0));
}

}  // namespace
}  // namespace Tarn::Storage
