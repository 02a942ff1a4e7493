#pragma once

// The synthetic endpoint's network: its own name and addresses, the hosts it
// talks to (the servers of its network, a skewed pool of outside hosts, and
// a few rare ones only the suspicious program reaches), and the connections
// open at a time.

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/synthetic/Random.h"

namespace Tarn::Tool {

struct Process;

// A place on the network the endpoint talks to.
struct RemoteHost {
  std::string host;
  std::string address;
  uint16_t port = 443;
  std::string protocol;  // what runs on the port: "HTTPS", "SMB", …
  bool internal = false;
  bool rare = false;  // contacted only by the suspicious program
};

struct Connection {
  uint64_t id = 0;
  uint64_t puid = 0;
  size_t peer = 0;
  uint32_t local_port = 0;
};

class Network {
 public:
  // Draws from `random`, the world's one generator.
  explicit Network(Random& random) : random_(random) {}
  // Makes the endpoint's addresses and its peers.
  void Make();

  const std::string& Hostname() const { return hostname_; }
  // A peer for `actor`: internal servers, a skewed pool of outside hosts,
  // and for a dropped program one of a few rare addresses.
  size_t PickPeer(const Process& actor);
  // A server of the endpoint's network that speaks `protocol` ("LDAP"), or
  // PickPeer's choice when there is none.
  size_t PeerFor(std::string_view protocol, const Process& actor);
  // One of the addresses only the suspicious program talks to.
  size_t RarePeer() { return rare_begin_ + random_.Below(peers_.size() - rare_begin_); }
  const RemoteHost& Peer(size_t i) const { return peers_[i]; }
  uint64_t NewConnectionId() { return ++connection_counter_ * 0x9E37 + 7; }
  void OpenConnection(const Connection& c);
  // A connection opened earlier, now closing; false when none is open.
  bool CloseConnection(Connection& c);
  // A process ended: its connections end with it.
  void CloseConnectionsOf(uint64_t puid);
  // The name of a host any program may reach, and of an outside one.
  const std::string& CommonHost() { return peers_[random_.Below(rare_begin_)].host; }
  const std::string& OutsideHost() {
    return peers_[internal_count_ + random_.Skewed(rare_begin_ - internal_count_)].host;
  }
  const std::string& LocalAddress(bool ipv6) const { return ipv6 ? local_ipv6_ : local_ipv4_; }
  const std::string& LocalMac() const { return local_mac_; }
  const std::string& GatewayMac() const { return gateway_mac_; }
  std::string RandomMac();
  uint32_t EphemeralPort(bool linux);

 private:
  Random& random_;
  std::string hostname_;
  std::string local_ipv4_;
  std::string local_ipv6_;
  std::string local_mac_;
  std::string gateway_mac_;
  std::vector<RemoteHost> peers_;
  size_t internal_count_ = 0;
  size_t rare_begin_ = 0;
  std::deque<Connection> open_;
  uint64_t connection_counter_ = 0;
};

}  // namespace Tarn::Tool
