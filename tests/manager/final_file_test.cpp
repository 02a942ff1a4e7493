// The shutdown file: its layout, which files a start may use, and blocks it
// refuses to write. Writes failing or cut short at every step are swept in
// fault_sweep_test.cpp; arbitrary files are classified against a plain
// reading of the format in fuzz/final_fuzz.cpp.

#include "manager/format/FinalFile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Keel/OS/FaultInjection.h"
#include "block_samples.h"
#include "manager/format/EventsBlock.h"
#include "manager/format/StorageHelper.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

using Keel::Collections::Buffer;
namespace Faults = Keel::OS::Faults;
using tarn::test::LogCapture;
using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;
using test::Bytes;
using test::MakeSampleBlock;
using test::SampleBlock;

class FinalFileTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    Faults::ClearRules();
    Faults::EnableCrashTracking(false);
  }

  // A sample block with its table, as the store holds it at close: each
  // record's size field (bytes 10-11) tells its length, as an event's does.
  static SampleBlock Closed(const std::vector<uint32_t>& sizes) {
    SampleBlock block = MakeSampleBlock(sizes, 3600);
    for (uint32_t i = 0; i < block.entries.Count(); ++i) {
      uint8_t* record = block.raw.Data() + block.entries.Get(i)->offset;
      record[10] = static_cast<uint8_t>(sizes[i]);
      record[11] = static_cast<uint8_t>(sizes[i] >> 8);
    }
    EXPECT_TRUE(AppendEntryTable(block.raw, block.entries));
    return block;
  }

  FinalFileState Read() {
    day_ = 0;
    table_offset_ = count_ = 0;
    return ReadFinalFile(path_, raw_, table_offset_, count_, day_);
  }

  tarn::test::TempDir dir_;
  std::string path_ = dir_.File(Utils::kFinalFileName);
  Buffer raw_;
  uint32_t table_offset_ = 0, count_ = 0;
  uint16_t day_ = 0;
};

TEST_F(FinalFileTest, LayoutIsByteExactAndReadsBack) {
  SampleBlock block = Closed({30, 50});
  Faults::EnableCrashTracking(true);
  ASSERT_TRUE(WriteFinalFile(path_, block.raw, 80, 2, 300));
  EXPECT_EQ(Faults::PendingFiles(), 0u);

  std::string file = ReadWholeFile(path_);
  ASSERT_EQ(file.size(), kFinalHeaderSize + 96);
  EXPECT_EQ(file.substr(0, 8), std::string("ETRN\x02\0\0\0", 8));
  EXPECT_EQ(file.substr(8, 24), std::string(24, '\0'));
  EXPECT_EQ(file.substr(32, 14), std::string("\x50\0\0\0\x02\0\0\0\x60\0\0\0\x2C\x01", 14));
  std::string inverted = file.substr(kFinalHeaderSize);
  for (char& c : inverted) c = static_cast<char>(~c);
  EXPECT_EQ(inverted, Bytes(block.raw));

  ASSERT_EQ(Read(), FinalFileState::Ok);
  EXPECT_EQ(Bytes(raw_), Bytes(block.raw));
  EXPECT_EQ(table_offset_, 80u);
  EXPECT_EQ(count_, 2u);
  EXPECT_EQ(day_, 300);
}

TEST_F(FinalFileTest, OnlyACompleteConsistentFileIsUsed) {
  LogCapture log;
  EXPECT_EQ(Read(), FinalFileState::Absent);
  EXPECT_TRUE(log.Empty());

  SampleBlock block = Closed({40, 40, 40});
  ASSERT_TRUE(WriteFinalFile(path_, block.raw, 120, 3, 9));
  const std::string good = ReadWholeFile(path_);
  auto with = [&good](size_t position, std::string bytes) {
    std::string out = good;
    out.replace(position, bytes.size(), bytes);
    return out;
  };
  // The magic is what says the write finished; anything else is torn.
  for (const std::string& torn : {with(0, std::string(4, '\0')), with(0, std::string("ET\0\0", 4)),
                                  std::string(), good.substr(0, 3), good.substr(4)}) {
    WriteWholeFile(path_, torn);
    EXPECT_EQ(Read(), FinalFileState::Incomplete);
    EXPECT_TRUE(raw_.Empty());
  }
  for (const std::string& invalid : {
           with(4, std::string("\x01", 1)),   // version
           with(20, std::string("\x01", 1)),  // reserved
           with(36, std::string("\x04", 1)),  // event count
           with(40, std::string("\x61", 1)),  // raw size
           with(32, std::string("\x7F", 1)),  // table offset
           good.substr(0, good.size() - 1), good + '\0', good.substr(0, 45),
           with(kFinalHeaderSize + 120 + 8, good.substr(kFinalHeaderSize + 120, 4)),  // offsets
           with(kFinalHeaderSize + 120 + 21, std::string(2, '\0')),  // second 130834
           // A record whose own length is not its entry's span (inverted: 41).
           with(kFinalHeaderSize + 40 + 10, std::string("\xD6", 1)),
       }) {
    WriteWholeFile(path_, invalid);
    EXPECT_EQ(Read(), FinalFileState::Invalid);
    EXPECT_TRUE(raw_.Empty());
    EXPECT_EQ(day_, 0);
  }
  WriteWholeFile(path_, good);
  EXPECT_EQ(Read(), FinalFileState::Ok);
  EXPECT_EQ(day_, 9);
}

TEST_F(FinalFileTest, BlocksThatAreNotWholeAreNotWritten) {
  LogCapture log;
  SampleBlock block = Closed({40, 40});
  EXPECT_FALSE(WriteFinalFile(path_, block.raw, 80, 1, 1));  // count against table
  EXPECT_FALSE(WriteFinalFile(path_, block.raw, 81, 2, 1));
  Buffer empty;
  EXPECT_FALSE(WriteFinalFile(path_, empty, 0, 0, 1));
  block.raw.Data()[80] = 1;  // the first offset
  EXPECT_FALSE(WriteFinalFile(path_, block.raw, 80, 2, 1));
  EXPECT_EQ(Read(), FinalFileState::Absent);
  EXPECT_GE(log.Count(Keel::Log::Error), 4u);
}

}  // namespace
}  // namespace Tarn::Storage
