#include "Keel/Utils/String.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <type_traits>
#include <utility>

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

// `good` texts convert to their values; `bad` ones fail and leave the output alone.
template <typename T>
void ExpectConversions(std::initializer_list<std::pair<const char*, T>> good,
                       std::initializer_list<const char*> bad, bool integer = true) {
  T v{};
  for (const auto& [text, value] : good) {
    EXPECT_TRUE(Convert(text, v)) << text;
    EXPECT_EQ(v, value) << text;
  }
  v = T{5};
  for (const char* text : bad) EXPECT_FALSE(Convert(text, v)) << text;
  for (const char* text : kNotANumber) {
    if (integer) {
      EXPECT_FALSE(Convert(text, v)) << text;
    }
  }
  EXPECT_EQ(v, T{5});
}

TEST(StringTest, IntegerConversionsStopExactlyAtTheirBounds) {
  ExpectConversions<uint32_t>({{"4294967295", 4294967295u},
                               {"0", 0},
                               {"007", 7},
                               {"0xFFFFFFFF", 0xFFFFFFFFu},
                               {"0X1f", 31}},
                              {"4294967296", "0x100000000", "99999999999999999999", "-1", "-0"});
  ExpectConversions<uint64_t>(
      {{"18446744073709551615", UINT64_MAX}, {"0xffffffffffffffff", UINT64_MAX}},
      {"18446744073709551616", "0x10000000000000000", "-1"});
  ExpectConversions<int64_t>({{"-9223372036854775808", INT64_MIN},
                              {"9223372036854775807", INT64_MAX},
                              {"-0x10", -16},
                              {"-0", 0}},
                             {"-9223372036854775809", "9223372036854775808", "-", "- 1", "-+1"});
}

TEST(StringTest, ToDoubleAcceptsFiniteDecimalOnly) {
  ExpectConversions<double>({{"1.5", 1.5}, {"-2e3", -2000.0}, {"42", 42.0}},
                            {"", "+1", " 1", "1.5x", "inf", "-inf", "nan", "1e999", "0x10", "."},
                            false);
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

  // Without a capacity, formatting grows as far as it needs.
  String grown("storage.");
  std::string long_part(10000, 'z');
  ASSERT_TRUE(
      grown.AddFormat("%05u.%03u.db|%s|%llu", 7u, 2u, long_part.c_str(), 18446744073709551615ull));
  EXPECT_EQ(grown.str(), "storage.00007.002.db|" + long_part + "|18446744073709551615");
  EXPECT_EQ(grown.Length(), grown.str().size());
}

TEST(StringTest, Utf8RejectsMalformedText) {
  for (const char* bad : {
           "\x80",              // continuation without a lead
           "\xC0\x80",          // overlong NUL
           "\xC1\xBF",          // overlong U+007F
           "\xE0\x9F\xBF",      // overlong U+07FF
           "\xF0\x8F\xBF\xBF",  // overlong U+FFFF
           "\xF4\x90\x80\x80",  // U+110000
           "\xF5\x80\x80\x80",  // lead byte beyond Unicode
           "\xFF",
           "ok\xE2\x82",  // truncated at the end
           "\xE2\x82"
           "A",             // truncated before ASCII
           "\xC3\xC3\xA9",  // lead where a continuation belongs
       }) {
    EXPECT_FALSE(String::IsValidUtf8(bad)) << testing::PrintToString(std::string(bad));
  }
}

// Every code point, encoded independently: valid exactly when not a
// surrogate, and no strict prefix of a multi-byte sequence is complete.
TEST(StringTest, Utf8AgreesWithAnEncoderOverAllCodePoints) {
  auto encode = [](uint32_t cp) {
    static const uint8_t kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
    int n = cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
    std::string out(n, '\0');
    for (int i = n - 1; i > 0; --i, cp >>= 6) out[i] = static_cast<char>(0x80 | (cp & 0x3F));
    out[0] = static_cast<char>(kLead[n] | cp);
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
    if (bytes.size() > 1 && String::IsValidUtf8(bytes.substr(0, bytes.size() - 1))) {
      ADD_FAILURE() << "prefix of U+" << std::hex << cp;
      ++wrong;
    }
  }
  // Sequences in a row, around ASCII and NUL, and nothing at all.
  EXPECT_TRUE(String::IsValidUtf8(""));
  EXPECT_TRUE(
      String::IsValidUtf8(std::string_view("\xC2\x80\xE0\xA0\x80 nul\0\xF4\x8F\xBF\xBF", 14)));
}

}  // namespace
