#include "Keel/Utils/String.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "support/log_capture.h"

namespace {

using Keel::Utils::String;

template <typename T>
bool Convert(std::string_view text, T& out) {
  String s(text);
  if constexpr (std::is_same_v<T, uint32_t>) {
    return s.ToUInt32(out);
  } else if constexpr (std::is_same_v<T, uint64_t>) {
    return s.ToUInt64(out);
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return s.ToInt64(out);
  } else {
    return s.ToDouble(out);
  }
}

// Texts no integer conversion accepts.
const char* const kNotANumber[] = {"",     "+1",  " 1",   "1 ",  "1x",  "x1",  "0x",
                                   "0x-1", "0xg", "0x 1", "1.0", "1e3", "--1", "0x0x1"};

TEST(StringTest, ToUInt32Boundaries) {
  uint32_t v = 0;
  EXPECT_TRUE(Convert("4294967295", v));
  EXPECT_EQ(v, 4294967295u);
  EXPECT_TRUE(Convert("0", v));
  EXPECT_EQ(v, 0u);
  EXPECT_TRUE(Convert("007", v));
  EXPECT_EQ(v, 7u);
  EXPECT_TRUE(Convert("0xFFFFFFFF", v));
  EXPECT_EQ(v, 0xFFFFFFFFu);
  EXPECT_TRUE(Convert("0X1f", v));
  EXPECT_EQ(v, 31u);
  v = 5;
  for (const char* bad : {"4294967296", "0x100000000", "99999999999999999999", "-1", "-0"}) {
    EXPECT_FALSE(Convert(bad, v)) << bad;
  }
  for (const char* bad : kNotANumber) EXPECT_FALSE(Convert(bad, v)) << bad;
  EXPECT_EQ(v, 5u);  // failures leave the output alone
}

TEST(StringTest, ToUInt64Boundaries) {
  uint64_t v = 0;
  EXPECT_TRUE(Convert("18446744073709551615", v));
  EXPECT_EQ(v, UINT64_MAX);
  EXPECT_TRUE(Convert("0xffffffffffffffff", v));
  EXPECT_EQ(v, UINT64_MAX);
  EXPECT_FALSE(Convert("18446744073709551616", v));
  EXPECT_FALSE(Convert("0x10000000000000000", v));
  EXPECT_FALSE(Convert("-1", v));
  for (const char* bad : kNotANumber) EXPECT_FALSE(Convert(bad, v)) << bad;
}

TEST(StringTest, ToInt64BoundariesAndSign) {
  int64_t v = 0;
  EXPECT_TRUE(Convert("-9223372036854775808", v));
  EXPECT_EQ(v, INT64_MIN);
  EXPECT_TRUE(Convert("9223372036854775807", v));
  EXPECT_EQ(v, INT64_MAX);
  EXPECT_TRUE(Convert("-0x10", v));
  EXPECT_EQ(v, -16);
  EXPECT_TRUE(Convert("-0", v));
  EXPECT_EQ(v, 0);
  v = 3;
  for (const char* bad : {"-9223372036854775809", "9223372036854775808", "-", "- 1", "-+1"}) {
    EXPECT_FALSE(Convert(bad, v)) << bad;
  }
  for (const char* bad : kNotANumber) EXPECT_FALSE(Convert(bad, v)) << bad;
  EXPECT_EQ(v, 3);
}

TEST(StringTest, ToDoubleAcceptsFiniteDecimalOnly) {
  double v = 0;
  EXPECT_TRUE(Convert("1.5", v));
  EXPECT_EQ(v, 1.5);
  EXPECT_TRUE(Convert("-2e3", v));
  EXPECT_EQ(v, -2000.0);
  EXPECT_TRUE(Convert("42", v));
  EXPECT_EQ(v, 42.0);
  v = 7;
  for (const char* bad : {"", "+1", " 1", "1.5x", "inf", "-inf", "nan", "1e999", "0x10", "."}) {
    EXPECT_FALSE(Convert(bad, v)) << bad;
  }
  EXPECT_EQ(v, 7.0);
}

TEST(StringTest, FromIntegersRoundTrip) {
  EXPECT_EQ(String::FromUInt64(UINT64_MAX).str(), "18446744073709551615");
  EXPECT_EQ(String::FromInt64(INT64_MIN).str(), "-9223372036854775808");
  EXPECT_EQ(String::FromInt64(0).str(), "0");
  int64_t back;
  ASSERT_TRUE(String::FromInt64(-123456789).ToInt64(back));
  EXPECT_EQ(back, -123456789);
}

TEST(StringTest, CapacityBoundsEveryAppend) {
  tarn::test::LogCapture log;
  String s("old");
  ASSERT_TRUE(s.Create(8));
  EXPECT_TRUE(s.Empty());
  EXPECT_EQ(s.Capacity(), 8u);
  EXPECT_TRUE(s.Assign("12345678"));
  EXPECT_FALSE(s.Assign("123456789"));
  EXPECT_EQ(s.str(), "12345678");
  EXPECT_FALSE(s.Add("9"));
  EXPECT_FALSE(s.AddFormat("%d", 9));
  EXPECT_EQ(s.str(), "12345678");
  EXPECT_EQ(log.CountFrom(Keel::Log::Utils, Keel::Log::Error), 3u);

  s.Clear();
  EXPECT_TRUE(s.AddFormat("%05u.", 7u));  // appends; exactly fills the capacity
  EXPECT_TRUE(s.AddFormat("%s", "db"));
  EXPECT_EQ(s.str(), "00007.db");
  EXPECT_EQ(s.Length(), 8u);
  EXPECT_FALSE(s.AddFormat("%s", "x"));
  EXPECT_TRUE(s.AddFormat("%s", ""));  // nothing to add always fits
}

TEST(StringTest, AddFormatProducesLongText) {
  String s("storage.");
  std::string long_part(10000, 'z');
  ASSERT_TRUE(
      s.AddFormat("%05u.%03u.db|%s|%llu", 7u, 2u, long_part.c_str(), 18446744073709551615ull));
  EXPECT_EQ(s.str(), "storage.00007.002.db|" + long_part + "|18446744073709551615");
  EXPECT_EQ(s.Length(), s.str().size());
}

TEST(StringTest, Utf8AcceptsWellFormedText) {
  EXPECT_TRUE(String::IsValidUtf8(""));
  EXPECT_TRUE(String::IsValidUtf8("plain ascii\x7f"));
  EXPECT_TRUE(String::IsValidUtf8(std::string_view("nul\0inside", 10)));
  EXPECT_TRUE(String::IsValidUtf8("\xC2\x80 \xDF\xBF"));          // U+0080, U+07FF
  EXPECT_TRUE(String::IsValidUtf8("\xE0\xA0\x80 \xEF\xBF\xBF"));  // U+0800, U+FFFF
  EXPECT_TRUE(String::IsValidUtf8("\xED\x9F\xBF \xEE\x80\x80"));  // either side of surrogates
  EXPECT_TRUE(String::IsValidUtf8("\xF0\x90\x80\x80 \xF4\x8F\xBF\xBF"));  // U+10000, U+10FFFF
}

TEST(StringTest, Utf8RejectsMalformedText) {
  for (const char* bad : {
           "\x80",              // continuation without a lead
           "\xC0\x80",          // overlong NUL
           "\xC1\xBF",          // overlong U+007F
           "\xE0\x9F\xBF",      // overlong U+07FF
           "\xF0\x8F\xBF\xBF",  // overlong U+FFFF
           "\xED\xA0\x80",      // U+D800
           "\xED\xBF\xBF",      // U+DFFF
           "\xF4\x90\x80\x80",  // U+110000
           "\xF5\x80\x80\x80",  // lead byte beyond Unicode
           "\xFF",
           "ok\xE2\x82",  // truncated at the end
           "\xE2\x82"
           "A",             // truncated before ASCII
           "\xF0\x9F\x98",  // three of four bytes
           "\xC3\xC3\xA9",  // lead where a continuation belongs
       }) {
    EXPECT_FALSE(String::IsValidUtf8(bad)) << testing::PrintToString(std::string(bad));
  }
}

// Every code point, encoded independently: valid exactly when not a surrogate.
TEST(StringTest, Utf8AgreesWithAnEncoderOverAllCodePoints) {
  auto encode = [](uint32_t cp) {
    std::string out;
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | cp >> 6);
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | cp >> 12);
      out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | cp >> 18);
      out += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
      out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
    return out;
  };
  int wrong = 0;
  for (uint32_t cp = 0; cp <= 0x10FFFF && wrong < 5; ++cp) {
    bool surrogate = cp >= 0xD800 && cp <= 0xDFFF;
    std::string bytes = encode(cp);
    if (String::IsValidUtf8(bytes) == surrogate) {
      ADD_FAILURE() << "U+" << std::hex << cp;
      ++wrong;
    }
    // Any strict prefix of a multi-byte sequence is incomplete.
    if (bytes.size() > 1 && String::IsValidUtf8(bytes.substr(0, bytes.size() - 1))) {
      ADD_FAILURE() << "prefix of U+" << std::hex << cp;
      ++wrong;
    }
  }
}

}  // namespace
