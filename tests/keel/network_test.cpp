#include "Keel/OS/Network.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

namespace Network = Keel::OS::Network;
using Keel::Utils::String;

std::string Format(bool ipv6, std::vector<uint8_t> bytes) {
  String out("stale");
  EXPECT_TRUE(Network::FormatAddress(ipv6, bytes.data(), out));
  return out.str();
}

TEST(NetworkTest, FormatsIPv4Dotted) {
  EXPECT_EQ(Format(false, {192, 168, 1, 10}), "192.168.1.10");
  EXPECT_EQ(Format(false, {0, 0, 0, 0}), "0.0.0.0");
  EXPECT_EQ(Format(false, {255, 255, 255, 255}), "255.255.255.255");
}

TEST(NetworkTest, FormatsIPv6InCanonicalCompressedForm) {
  std::vector<uint8_t> v(16, 0);
  EXPECT_EQ(Format(true, v), "::");
  v[15] = 1;
  EXPECT_EQ(Format(true, v), "::1");
  v = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  EXPECT_EQ(Format(true, v), "2001:db8::1");
  // One zero group stays; the longer of two zero runs is the one compressed.
  v = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1};
  EXPECT_EQ(Format(true, v), "2001:db8:0:1::1");
  v = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1};
  EXPECT_EQ(Format(true, v), "2001:db8:0:1:1:1:1:1");
  v = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0xAB, 0xCD, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(Format(true, v), "fe80::abcd:0:0:0");
  v = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 1};
  EXPECT_EQ(Format(true, v), "::ffff:10.0.0.1");
}

TEST(NetworkTest, FormatFailuresAreLoggedAndKeepTheText) {
  tarn::test::LogCapture log;
  uint8_t bytes[16] = {0xfe, 0x80, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
  String small;
  ASSERT_TRUE(small.Create(8));
  ASSERT_TRUE(small.Assign("keep"));
  EXPECT_FALSE(Network::FormatAddress(true, bytes, small));
  EXPECT_EQ(small.str(), "keep");
  EXPECT_FALSE(Network::FormatAddress(false, nullptr, small));
  EXPECT_EQ(log.Count(Keel::Log::Error), 2u);
  // The longest possible text fits the advertised size.
  uint8_t widest[16] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                        0xff, 0xff, 0xff, 0xff, 255,  255,  255,  255};
  String bounded;
  ASSERT_TRUE(bounded.Create(Network::kMaxAddressText));
  EXPECT_TRUE(Network::FormatAddress(true, widest, bounded));
}

TEST(NetworkTest, ParsesBothFamilies) {
  bool ipv6 = true;
  uint8_t bytes[16];
  std::fill(std::begin(bytes), std::end(bytes), 0xEE);
  ASSERT_TRUE(Network::ParseAddress("10.1.2.3", ipv6, bytes));
  EXPECT_FALSE(ipv6);
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 16),
            (std::vector<uint8_t>{10, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

  ASSERT_TRUE(Network::ParseAddress("2001:DB8::ff00:42:8329", ipv6, bytes));
  EXPECT_TRUE(ipv6);
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 16),
            (std::vector<uint8_t>{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0xff, 0, 0, 0x42, 0x83,
                                  0x29}));
}

TEST(NetworkTest, ParseRejectsAnythingElseAndWritesNothing) {
  std::string long_text(100, '1');
  std::string with_nul("1.2.3.4\0junk", 12);
  for (std::string_view text :
       {std::string_view(""), std::string_view("1.2.3"), std::string_view("1.2.3.256"),
        std::string_view(" 1.2.3.4"), std::string_view("1.2.3.4 "), std::string_view("::g"),
        std::string_view("1::2::3"), std::string_view("fe80::1%eth0"),
        std::string_view("1:2:3:4:5:6:7:8:9"), std::string_view(with_nul),
        std::string_view(long_text), std::string_view("localhost")}) {
    bool ipv6 = true;
    uint8_t bytes[16] = {7};
    EXPECT_FALSE(Network::ParseAddress(text, ipv6, bytes)) << text;
    EXPECT_TRUE(ipv6);
    EXPECT_EQ(bytes[0], 7);
  }
}

TEST(NetworkTest, ParseAndFormatRoundTrip) {
  for (const char* text : {"0.0.0.0", "172.16.254.1", "::", "::1", "fe80::1:2",
                           "2001:db8:85a3::8a2e:370:7334", "::ffff:192.0.2.128"}) {
    bool ipv6;
    uint8_t bytes[16];
    ASSERT_TRUE(Network::ParseAddress(text, ipv6, bytes)) << text;
    String out;
    ASSERT_TRUE(Network::FormatAddress(ipv6, bytes, out));
    EXPECT_EQ(out.str(), text);
  }
}

}  // namespace
