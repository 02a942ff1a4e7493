#include "manager/format/DayFile.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/File.h"
#include "manager/format/StorageHelper.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

using Keel::OS::File;
namespace Faults = Keel::OS::Faults;
using tarn::test::LogCapture;
using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;

const std::string kHeader("ETRN\0\0\0\0\x02\0\0\0\0\0\0\0\0\0\0\0", 20);

class DayFileTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    Faults::ClearRules();
    Faults::EnableCrashTracking(false);
  }

  std::string Path() const { return dir_.File(Utils::DayFileName(1, Utils::kWriteVersion)); }

  tarn::test::TempDir dir_;
};

TEST_F(DayFileTest, NewFileStartsWithTheHeaderAndIsDurable) {
  Faults::EnableCrashTracking(true);
  File file;
  ASSERT_TRUE(CreateDayFile(Path(), file));
  EXPECT_EQ(Faults::PendingFiles(), 0u);
  EXPECT_EQ(ReadWholeFile(dir_.File("storage.00001.002.db")), kHeader);
  uint64_t position = 0;
  ASSERT_TRUE(file.Tell(position));
  EXPECT_EQ(position, kDayFileHeaderSize);
  ASSERT_TRUE(file.Write("block", 5));  // left open read-write

  DayFileCheck check;
  EXPECT_TRUE(ReadDayFileHeader(file, check));
  EXPECT_EQ(check, DayFileCheck::Ok);
  EXPECT_EQ(CheckDayFileHeader(reinterpret_cast<const uint8_t*>(kHeader.data()), 20),
            DayFileCheck::Ok);
}

TEST_F(DayFileTest, EachHeaderFaultIsRejectedWithItsOwnRecord) {
  struct Case {
    size_t position;
    char value;
    DayFileCheck expected;
  };
  const Case cases[] = {
      {0, 'X', DayFileCheck::BadMagic},  {3, 'n', DayFileCheck::BadMagic},
      {5, 1, DayFileCheck::BadReserved}, {8, 1, DayFileCheck::BadVersion},
      {11, 2, DayFileCheck::BadVersion}, {12, 1, DayFileCheck::BadTrailer},
      {19, 1, DayFileCheck::BadTrailer},
  };
  std::set<uint32_t> messages;
  for (const Case& c : cases) {
    std::string header = kHeader;
    header[c.position] = c.value;
    WriteWholeFile(Path(), header + "blocks");
    LogCapture log;
    File file;
    uint64_t size = 99;
    EXPECT_EQ(OpenDayFileForAppend(Path(), file, size), AppendOpen::kBadHeader) << c.position;
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(CheckDayFileHeader(reinterpret_cast<const uint8_t*>(header.data()), 20), c.expected)
        << c.position;
    ASSERT_FALSE(log.Records().empty());
    messages.insert(log.Records().front().message);
  }
  // Version 1 is still a day file version, but never this header's.
  EXPECT_EQ(messages.size(), 4u);

  LogCapture log;
  WriteWholeFile(Path(), kHeader.substr(0, 19));
  File file;
  uint64_t size = 0;
  EXPECT_EQ(OpenDayFileForAppend(Path(), file, size), AppendOpen::kBadHeader);
  EXPECT_EQ(CheckDayFileHeader(reinterpret_cast<const uint8_t*>(kHeader.data()), 19),
            DayFileCheck::TooShort);
  EXPECT_EQ(CheckDayFileHeader(nullptr, 20), DayFileCheck::TooShort);
  EXPECT_FALSE(messages.count(log.Records().front().message));
}

TEST_F(DayFileTest, AppendingKeepsBlocksAndGivesAnEmptyFileAFreshHeader) {
  WriteWholeFile(Path(), kHeader + "0123456789");
  File file;
  uint64_t size = 0;
  ASSERT_EQ(OpenDayFileForAppend(Path(), file, size), AppendOpen::kOk);
  EXPECT_EQ(size, 30u);
  EXPECT_EQ(ReadWholeFile(Path()), kHeader + "0123456789");

  WriteWholeFile(Path(), "");
  ASSERT_EQ(OpenDayFileForAppend(Path(), file, size), AppendOpen::kOk);
  EXPECT_EQ(size, kDayFileHeaderSize);
  EXPECT_EQ(ReadWholeFile(Path()), kHeader);

  LogCapture log;
  EXPECT_EQ(OpenDayFileForAppend(dir_.File("storage.00002.002.db"), file, size),
            AppendOpen::kIoError);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(log.Empty());
  ASSERT_EQ(OpenDayFileForAppend(dir_.File("storage.00002.002.db"), file, size, true),
            AppendOpen::kOk);
  EXPECT_EQ(ReadWholeFile(dir_.File("storage.00002.002.db")), kHeader);
  // A header that cannot be read is not a bad header: the file may be whole
  // (crash_recovery_test.cpp).
}

TEST_F(DayFileTest, FailedCreationLeavesAFileThatCanStillBeUsed) {
  LogCapture log;
  for (uint32_t operation : {Faults::Open, Faults::Write, Faults::Flush}) {
    for (Faults::Kind kind : {Faults::Eio, Faults::ShortWrite}) {
      Faults::AddRule({"storage.00001", operation, 1, kind, 1});
      File file;
      EXPECT_FALSE(CreateDayFile(Path(), file)) << operation;
      EXPECT_FALSE(file.IsOpen());
      Faults::ClearRules();
      // Either no file or an empty one: never a torn header.
      EXPECT_EQ(ReadWholeFile(Path()), "");
      uint64_t size = 0;
      if (operation != Faults::Open) {
        ASSERT_EQ(OpenDayFileForAppend(Path(), file, size), AppendOpen::kOk);
        EXPECT_EQ(ReadWholeFile(Path()), kHeader);
        WriteWholeFile(Path(), "");
      }
    }
  }
  EXPECT_FALSE(log.Empty());

  // The fresh header of an empty file is checked the same way.
  WriteWholeFile(Path(), "");
  Faults::AddRule({"storage.00001", Faults::Write, 1, Faults::ShortWrite, 1});
  File file;
  uint64_t size = 7;
  EXPECT_EQ(OpenDayFileForAppend(Path(), file, size), AppendOpen::kIoError);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(ReadWholeFile(Path()), "");
}

}  // namespace
}  // namespace Tarn::Storage
