#include "Keel/OS/Network.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

namespace Network = Keel::OS::Network;
using Keel::Utils::String;
using Bytes = std::vector<uint8_t>;

// Canonical texts, both ways: IPv6 in lower case with the longest zero run
// (never a single group) compressed, and IPv4-mapped addresses dotted.
TEST(NetworkTest, FormatsAndParsesCanonicalTexts) {
  struct Case {
    bool ipv6;
    Bytes bytes;
    const char* text;
  };
  const Case cases[] = {
      {false, {192, 168, 1, 10}, "192.168.1.10"},
      {false, {0, 0, 0, 0}, "0.0.0.0"},
      {false, {255, 255, 255, 255}, "255.255.255.255"},
      {true, Bytes(16, 0), "::"},
      {true, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, "::1"},
      {true, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, "2001:db8::1"},
      {true, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}, "2001:db8:0:1::1"},
      {true, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1}, "2001:db8:0:1:1:1:1:1"},
      {true, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0xAB, 0xCD, 0, 0, 0, 0, 0, 0}, "fe80::abcd:0:0:0"},
      {true, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 1}, "::ffff:10.0.0.1"},
  };
  for (const Case& c : cases) {
    String out("stale");
    ASSERT_TRUE(Network::FormatAddress(c.ipv6, c.bytes.data(), out)) << c.text;
    EXPECT_EQ(out.str(), c.text);
    bool ipv6 = !c.ipv6;
    Bytes parsed(16, 0xEE);
    ASSERT_TRUE(Network::ParseAddress(c.text, ipv6, parsed.data())) << c.text;
    EXPECT_EQ(ipv6, c.ipv6) << c.text;
    Bytes expected = c.bytes;
    expected.resize(16);  // IPv4 leaves the rest zero
    EXPECT_EQ(parsed, expected) << c.text;
  }
  // Upper case is read too.
  bool ipv6 = false;
  Bytes parsed(16);
  ASSERT_TRUE(Network::ParseAddress("2001:DB8::ff00:42:8329", ipv6, parsed.data()));
  EXPECT_EQ(parsed,
            (Bytes{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0xff, 0, 0, 0x42, 0x83, 0x29}));
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

}  // namespace
