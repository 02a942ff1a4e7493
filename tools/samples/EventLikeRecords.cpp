#include "samples/EventLikeRecords.h"

#include <cstdio>
#include <cstring>

namespace Tarn::Samples {
namespace {

// Appends whole records until `size` bytes are reached or passed.
SampleRecords Generate(size_t size, uint32_t seed) {
  static const char* kUsers[] = {"root", "svc-backup", "alice", "www-data", "postgres"};
  static const char* kBinaries[] = {"/usr/bin/python3", "/usr/sbin/sshd", "/usr/bin/curl",
                                    "/opt/agent/bin/updater", "/usr/lib/systemd/systemd-journald"};
  SampleRecords out;
  std::vector<uint8_t>& bytes = out.bytes;
  bytes.reserve(size + 1024);
  uint64_t state = seed, clock_ms = 1795313392000ull;
  auto next = [&state] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state >> 33);
  };
  auto put = [&bytes](uint64_t value, int count) {
    for (int i = 0; i < count; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  while (bytes.size() < size) {
    char text[512];
    uint32_t pid = 1000 + next() % 30000, id = next() % 64;
    int n = std::snprintf(text, sizeof(text),
                          "%s%c%s --job %u --queue jobs-%u --config /etc/agent/conf.d/%02u.yaml%c"
                          "/var/lib/agent/cache/%08x/%u.tmp%c%s%c",
                          kBinaries[id % 5], 0, kBinaries[id % 5], next() % 100000, id, id % 7, 0,
                          next(), pid, 0, kUsers[next() % 5], 0);
    for (int i = 0; i < 64; ++i) text[n++] = "0123456789abcdef"[next() % 16];
    text[n++] = 0;
    out.offsets.push_back(static_cast<uint32_t>(bytes.size()));
    clock_ms += next() % 40;
    out.times_ms.push_back(clock_ms);
    put(2 + id % 40, 4);
    put(0, 4);
    put(1, 2);
    put(40 + n, 2);  // the record's size: header and slots are 40 bytes
    put(0, 4);
    put(clock_ms, 8);
    put(pid, 4);
    put(pid - 1 - next() % 50, 4);
    put(next() % 4096 * 512, 8);
    bytes.insert(bytes.end(), text, text + n);
  }
  return out;
}

}  // namespace

SampleRecords EventLikeRecords(size_t size, uint32_t seed) {
  SampleRecords out = Generate(size, seed);
  if (out.bytes.size() > size) {
    out.bytes.resize(out.offsets.back());
    out.offsets.pop_back();
    out.times_ms.pop_back();
  }
  return out;
}

std::vector<uint8_t> EventLikeBytes(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes = Generate(size, seed).bytes;
  bytes.resize(size);
  return bytes;
}

}  // namespace Tarn::Samples
