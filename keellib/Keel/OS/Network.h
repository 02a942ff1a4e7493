#pragma once

#include <cstdint>
#include <string_view>

#include "Keel/Export.h"
#include "Keel/Utils/String.h"

namespace Keel::OS::Network {

// Longest text FormatAddress writes ("ffff:…:255.255.255.255" fits).
constexpr uint32_t kMaxAddressText = 46;

// Replaces `out` with the text form of a binary address in network order:
// 4 bytes dotted for IPv4, 16 bytes in the compressed form of RFC 5952 for
// IPv6 ("2001:db8::1", "::ffff:10.0.0.1"). False (logged) when out is full.
KEEL_API bool FormatAddress(bool ipv6, const uint8_t* bytes, Utils::String& out);

// Reads a dotted IPv4 or a textual IPv6 address. `bytes` gets 4 or 16 bytes
// in network order (the rest of the 16 zeroed) and `ipv6` says which. False
// for anything else, including surrounding spaces and zone suffixes.
KEEL_API bool ParseAddress(std::string_view text, bool& ipv6, uint8_t bytes[16]);

}  // namespace Keel::OS::Network
