#include "Keel/OS/Network.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "Keel/Log.h"

namespace Keel::OS::Network {
namespace {

// Keel::Log::Utils identifiers of this file.
enum Message : uint32_t {
  kNullAddress = 20,
  kFormatFailed = 21,
};

}  // namespace

bool FormatAddress(bool ipv6, const uint8_t* bytes, Utils::String& out) {
  if (bytes == nullptr) {
    KEEL_LOG(Log::Error, Log::Utils, kNullAddress, ipv6, 0, 0);
    return false;
  }
  char text[INET6_ADDRSTRLEN];
  if (inet_ntop(ipv6 ? AF_INET6 : AF_INET, bytes, text, sizeof(text)) == nullptr) {
    KEEL_LOG(Log::Error, Log::Utils, kFormatFailed, ipv6, errno, 0);
    return false;
  }
  return out.Assign(text);  // a full string logs for itself
}

bool ParseAddress(std::string_view text, bool& ipv6, uint8_t bytes[16]) {
  // inet_pton wants a terminated string; nothing longer than this is valid.
  char copy[INET6_ADDRSTRLEN];
  if (text.size() >= sizeof(copy) || text.find('\0') != std::string_view::npos) return false;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';

  uint8_t parsed[16] = {};
  if (inet_pton(AF_INET, copy, parsed) == 1) {
    ipv6 = false;
  } else if (inet_pton(AF_INET6, copy, parsed) == 1) {
    ipv6 = true;
  } else {
    return false;
  }
  std::memcpy(bytes, parsed, sizeof(parsed));
  return true;
}

}  // namespace Keel::OS::Network
