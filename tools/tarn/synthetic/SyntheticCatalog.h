#pragma once

// What the synthetic endpoint is made of: the programs that run on it (a
// Windows workstation with a Linux side: WSL and containers), the names it
// uses, and the places it talks to. Plain data; Synthetic*.cpp brings it to
// life.

#include <cstdint>
#include <span>
#include <string_view>

namespace Tarn::Tool::Catalog {

enum ProgramFlags : uint16_t {
  kLinux = 1 << 0,
  kSystem = 1 << 2,     // runs as SYSTEM / root
  kService = 1 << 3,    // runs as a service account / daemon user
  kContainer = 1 << 4,  // runs in a container: its own pid space
  kDropped = 1 << 5,    // a downloaded executable: the suspicious part
  kElevated = 1 << 6,   // starts with full rights (sudo, UAC)
};

struct Program {
  std::string_view name;      // "chrome.exe", the process name
  std::string_view path;      // "{home}" stands for the user's home
  std::string_view args;      // alternatives joined by '|'; "{…}" placeholders
  std::string_view children;  // names of programs it starts, ' '-separated
  uint8_t spawn;              // how readily it starts children (0-9)
  uint8_t file;               // how busy it is with files (0-9)
  uint8_t net;                // and with the network
  uint8_t reg;                // and with the registry
  uint16_t flags;
};

std::span<const Program> Programs();
// The program of a name, or -1.
int ProgramIndex(std::string_view name);

// Peers on the network.
struct Peer {
  std::string_view host;
  std::string_view address;
  uint16_t port;
  std::string_view protocol;  // "HTTPS", "LDAP", …
};
// Servers of the endpoint's own network.
std::span<const Peer> InternalPeers();

std::span<const std::string_view> FirstNames();
std::span<const std::string_view> LastNames();
std::span<const std::string_view> HostWords();    // "cdn", "api", …
std::span<const std::string_view> DomainNames();  // "example.com", …
std::span<const std::string_view> DocumentNames();
std::span<const std::string_view> SourceNames();  // for Linux paths
std::span<const std::string_view> SystemDlls();
std::span<const std::string_view> LinuxLibraries();
std::span<const std::string_view> RegistryKeys();
std::span<const std::string_view> RegistryValues();
std::span<const std::string_view> UserAgents();
std::span<const std::string_view> UrlPaths();
std::span<const std::string_view> MimeTypes();
std::span<const std::string_view> ServiceNames();
std::span<const std::string_view> TaskNames();
std::span<const std::string_view> Words();  // neutral filler words
std::span<const std::string_view> ApiNames();
std::span<const std::string_view> Privileges();
std::span<const std::string_view> DetectionNames();
std::span<const std::string_view> ImageNames();  // container images

}  // namespace Tarn::Tool::Catalog
