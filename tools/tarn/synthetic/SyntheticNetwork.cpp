#include "tarn/synthetic/SyntheticNetwork.h"

#include <algorithm>
#include <cstdio>

#include "Keel/OS/Network.h"
#include "Keel/Utils/String.h"
#include "tarn/synthetic/SyntheticWorld.h"

namespace Tarn::Tool {
namespace {

constexpr size_t kExternalPeers = 150;

std::string FormatAddress(bool ipv6, const uint8_t* bytes) {
  Keel::Utils::String text;
  Keel::OS::Network::FormatAddress(ipv6, bytes, text);
  return text.str();
}

std::string V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  const uint8_t bytes[4] = {a, b, c, d};
  return FormatAddress(false, bytes);
}

std::string V6(uint16_t w0, uint16_t w1, uint16_t w2, uint16_t w3, uint16_t w6, uint16_t w7) {
  const uint16_t words[8] = {w0, w1, w2, w3, 0, 0, w6, w7};
  uint8_t bytes[16];
  for (int i = 0; i < 8; ++i) {
    bytes[2 * i] = static_cast<uint8_t>(words[i] >> 8);
    bytes[2 * i + 1] = static_cast<uint8_t>(words[i]);
  }
  return FormatAddress(true, bytes);
}

}  // namespace

void Network::Make() {
  char name[16];
  std::snprintf(name, sizeof(name), "WS-%06llX",
                static_cast<unsigned long long>(random_.Below(0x1000000)));
  hostname_ = name;
  // One draw a statement: a call's arguments may be evaluated in any order,
  // and the same seed must give the same events whatever the compiler.
  const auto subnet = static_cast<uint8_t>(random_.Between(2, 9));
  const auto station = static_cast<uint8_t>(random_.Between(2, 254));
  local_ipv4_ = V4(10, 20, subnet, station);
  const auto group = static_cast<uint16_t>(random_.Below(0x10000));
  const auto interface_id = static_cast<uint16_t>(random_.Below(0x10000));
  local_ipv6_ = V6(0xfd00, 0x20, 0, 0, group, interface_id);
  local_mac_ = "00:15:5d" + RandomMac().substr(8);
  gateway_mac_ = "3c:52:82" + RandomMac().substr(8);

  for (const Catalog::Peer& peer : Catalog::InternalPeers()) {
    peers_.push_back({std::string(peer.host), std::string(peer.address), peer.port,
                      std::string(peer.protocol), true, false});
  }
  internal_count_ = peers_.size();
  for (size_t i = 0; i < kExternalPeers; ++i) {
    RemoteHost peer;
    peer.host = std::string(random_.Pick(Catalog::HostWords())) + ".";
    peer.host += random_.Pick(Catalog::DomainNames());
    if (random_.Chance(0.3)) {
      const auto site = static_cast<uint16_t>(random_.Below(0x10000));
      const auto node = static_cast<uint16_t>(random_.Between(1, 0xffff));
      peer.address = V6(0x2001, 0xdb8, site, 0, 0, node);
    } else {
      const uint8_t first = random_.Chance(0.5) ? 198 : 203;
      const uint8_t second = random_.Chance(0.5) ? 51 : 0;
      const uint8_t third = random_.Chance(0.5) ? 100 : 113;
      const auto fourth = static_cast<uint8_t>(random_.Between(1, 199));
      peer.address = V4(first, second, third, fourth);
    }
    peer.port = random_.Chance(0.85) ? 443 : 80;
    peer.protocol = peer.port == 443 ? "HTTPS" : "HTTP";
    peers_.push_back(std::move(peer));
  }
  rare_begin_ = peers_.size();
  char host[48];
  for (int i = 0; i < 3; ++i) {
    std::snprintf(host, sizeof(host), "cdn-%04llx.example.org",
                  static_cast<unsigned long long>(random_.Below(0x10000)));
    peers_.push_back({host, V4(203, 0, 113, static_cast<uint8_t>(200 + random_.Below(50))),
                      static_cast<uint16_t>(i == 0 ? 443 : (i == 1 ? 8443 : 4444)), "HTTPS", false,
                      true});
  }
  peers_.push_back(
      {"relay.example.net", V6(0x2001, 0xdb8, 0xbad, 0xc0de, 0, 0x17), 443, "HTTPS", false, true});
}

std::string Network::RandomMac() {
  char text[18];
  uint64_t r = random_.Next();
  std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x",
                static_cast<unsigned>(r & 0xfe), static_cast<unsigned>((r >> 8) & 0xff),
                static_cast<unsigned>((r >> 16) & 0xff), static_cast<unsigned>((r >> 24) & 0xff),
                static_cast<unsigned>((r >> 32) & 0xff), static_cast<unsigned>((r >> 40) & 0xff));
  return text;
}

uint32_t Network::EphemeralPort(bool linux) {
  return static_cast<uint32_t>(linux ? random_.Between(32768, 60999)
                                     : random_.Between(49152, 65535));
}

size_t Network::PickPeer(const Process& actor) {
  if (actor.IsDropper() && random_.Chance(0.7)) return RarePeer();
  if (random_.Chance(actor.IsLinux() ? 0.15 : 0.3)) return random_.Below(internal_count_);
  return internal_count_ + random_.Skewed(rare_begin_ - internal_count_, 2.5);
}

size_t Network::PeerFor(std::string_view protocol, const Process& actor) {
  std::vector<size_t> matches;
  for (size_t i = 0; i < internal_count_; ++i) {
    if (peers_[i].protocol == protocol) matches.push_back(i);
  }
  return matches.empty() ? PickPeer(actor) : matches[random_.Below(matches.size())];
}

void Network::OpenConnection(const Connection& c) {
  open_.push_back(c);
  if (open_.size() > 512) open_.pop_front();  // long-lived ones simply never close here
}

bool Network::CloseConnection(Connection& c) {
  if (open_.empty()) return false;
  size_t i = random_.Below(std::min<size_t>(open_.size(), 32));
  c = open_[i];
  open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(i));
  return true;
}

void Network::CloseConnectionsOf(uint64_t puid) {
  open_.erase(std::remove_if(open_.begin(), open_.end(),
                             [puid](const Connection& c) { return c.puid == puid; }),
              open_.end());
}

}  // namespace Tarn::Tool
