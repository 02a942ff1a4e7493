#include "manager/format/StorageHelper.h"

#include <gtest/gtest.h>

#include "Keel/Utils/String.h"
#include "support/log_capture.h"

namespace Tarn::Storage::Utils {
namespace {

using Keel::Utils::String;
using tarn::test::LogCapture;

TEST(StorageHelperTest, DayFileNamesArePaddedAndParseBack) {
  EXPECT_EQ(DayFileName(1, kWriteVersion), "storage.00001.002.db");
  EXPECT_EQ(DayFileName(7, 2), "storage.00007.002.db");
  EXPECT_EQ(DayFileName(65535, 2), "storage.65535.002.db");
  EXPECT_EQ(DayFileName(0, 255), "storage.00000.255.db");
  EXPECT_STREQ(kFinalFileName, "storage.final.db");

  LogCapture log;
  for (uint16_t day : {0, 1, 4095, 65535}) {
    for (uint8_t file_version : {0, 1, 2, 255}) {
      uint16_t parsed_day = 99;
      uint8_t parsed_version = 99;
      EXPECT_TRUE(
          IsStorageFile(DayFileName(day, file_version).c_str(), false, parsed_day, parsed_version));
      EXPECT_EQ(parsed_day, day);
      EXPECT_EQ(parsed_version, file_version);
    }
  }
  EXPECT_TRUE(log.Empty());
}

// Every rejection clears the day, whatever the reason.
void ExpectRejected(const char* name, bool is_directory = false) {
  uint16_t day = 42;
  uint8_t file_version = 0;
  EXPECT_FALSE(IsStorageFile(name, is_directory, day, file_version)) << name;
  EXPECT_EQ(day, 0) << name;
}

TEST(StorageHelperTest, OtherNamesOfTheRightLengthAreRejectedQuietly) {
  LogCapture log;
  for (const char* name :
       {"storage_00001.002.db", "Storage.00001.002.db", "st0rage.00001.002.db",
        "storage.0000a.002.db", "storage.00001-002.db", "storage.00001.0x2.db",
        "storage.00001.002.d8", "storage.0001 .002.db", "storage.-0001.002.db"}) {
    ExpectRejected(name);
  }
  ExpectRejected("storage.00001.002.db", true);  // a directory never is one
  ExpectRejected(nullptr);
  EXPECT_TRUE(log.Empty());
}

TEST(StorageHelperTest, WrongLengthsAndOutOfRangeNumbersAreLogged) {
  LogCapture log;
  const char* lengths[] = {"storage.final.db",
                           "storage.index.db",
                           "storage.00001.002.db.tmp",
                           "storage.00001.002.d",
                           "storage.000001.002.db",
                           "storage.00001.02.db",
                           ""};
  for (const char* name : lengths) ExpectRejected(name);
  EXPECT_EQ(log.Count(Keel::Log::Debug), std::size(lengths));

  log.Clear();
  for (const char* name : {"storage.00001.256.db", "storage.00001.999.db", "storage.65536.002.db",
                           "storage.99999.000.db"}) {
    ExpectRejected(name);
  }
  EXPECT_EQ(log.Count(Keel::Log::Warning), 4u);
}

TEST(StorageHelperTest, FixedWidthConversionsAreStrict) {
  LogCapture log;
  uint16_t wide = 7;
  EXPECT_TRUE(String::ConvertToUInt16("65535", 10, 5, wide));
  EXPECT_EQ(wide, 65535);
  EXPECT_TRUE(String::ConvertToUInt16("00012.db", 10, 5, wide));  // stops at the length
  EXPECT_EQ(wide, 12);
  EXPECT_TRUE(String::ConvertToUInt16("ffFF", 16, 4, wide));
  EXPECT_EQ(wide, 0xFFFF);
  for (const char* text : {"65536", "1234x", "+1234", "-1234", " 1234", "12 34", "99999"}) {
    EXPECT_FALSE(String::ConvertToUInt16(text, 10, 5, wide)) << text;
  }
  EXPECT_FALSE(String::ConvertToUInt16("12\0", 10, 3, wide));  // a short text
  EXPECT_FALSE(String::ConvertToUInt16("12", 10, 0, wide));
  EXPECT_FALSE(String::ConvertToUInt16("12", 1, 2, wide));
  EXPECT_FALSE(String::ConvertToUInt16("12", 37, 2, wide));
  EXPECT_FALSE(String::ConvertToUInt16(nullptr, 10, 2, wide));
  EXPECT_EQ(wide, 0xFFFF);  // failures leave the output alone

  uint8_t narrow = 7;
  EXPECT_TRUE(String::ConvertToUInt8("255", 10, 3, narrow));
  EXPECT_EQ(narrow, 255);
  EXPECT_TRUE(String::ConvertToUInt8("002", 10, 3, narrow));
  EXPECT_EQ(narrow, 2);
  EXPECT_TRUE(String::ConvertToUInt8("101", 2, 3, narrow));
  EXPECT_EQ(narrow, 5);
  EXPECT_FALSE(String::ConvertToUInt8("256", 10, 3, narrow));
  EXPECT_FALSE(String::ConvertToUInt8("102", 2, 3, narrow));
  EXPECT_EQ(narrow, 5);
  EXPECT_TRUE(log.Empty());
}

}  // namespace
}  // namespace Tarn::Storage::Utils
