#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tarn::Events {

// An IPv4 or IPv6 address as a record keeps it: bytes in network order.
struct Address {
  static constexpr size_t kV4Length = 4;
  static constexpr size_t kV6Length = 16;

  bool ipv6 = false;
  uint8_t bytes[kV6Length] = {};

  size_t Length() const { return ipv6 ? kV6Length : kV4Length; }

  static Address V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    Address address;
    address.bytes[0] = a;
    address.bytes[1] = b;
    address.bytes[2] = c;
    address.bytes[3] = d;
    return address;
  }

  static Address V6(const uint8_t (&bytes)[kV6Length]) {
    Address address;
    address.ipv6 = true;
    std::memcpy(address.bytes, bytes, kV6Length);
    return address;
  }

  // Bytes past Length() do not take part: they are not stored.
  bool operator==(const Address& other) const {
    return ipv6 == other.ipv6 && std::memcmp(bytes, other.bytes, Length()) == 0;
  }
};

}  // namespace Tarn::Events
