#include "common/Measure.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace Tarn::Bench {
namespace {

Usage FromRusage(const rusage& r) {
  Usage usage;
  usage.cpu_seconds = static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
                      static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
  usage.max_rss_kib = static_cast<uint64_t>(r.ru_maxrss);
  return usage;
}

uint64_t StatusKib(const char* key) {
  std::FILE* status = std::fopen("/proc/self/status", "r");
  if (status == nullptr) return 0;
  char line[256];
  uint64_t value = 0;
  const size_t length = std::strlen(key);
  while (std::fgets(line, sizeof line, status) != nullptr) {
    if (std::strncmp(line, key, length) == 0 && line[length] == ':') {
      value = std::strtoull(line + length + 1, nullptr, 10);
      break;
    }
  }
  std::fclose(status);
  return value;
}

}  // namespace

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Usage SelfUsage() {
  rusage r{};
  getrusage(RUSAGE_SELF, &r);
  return FromRusage(r);
}

Usage ChildrenUsage() {
  rusage r{};
  getrusage(RUSAGE_CHILDREN, &r);
  return FromRusage(r);
}

uint64_t ResidentKib() { return StatusKib("VmRSS"); }
uint64_t HighWaterKib() { return StatusKib("VmHWM"); }

bool ResetHighWater() {
  std::FILE* clear = std::fopen("/proc/self/clear_refs", "w");
  if (clear == nullptr) return false;
  const bool written = std::fputs("5", clear) >= 0;
  return std::fclose(clear) == 0 && written;
}

uint64_t DirectoryBytes(const char* directory, std::string_view skip_prefix) {
  namespace fs = std::filesystem;
  std::error_code ec;
  uint64_t total = 0;
  for (const auto& entry : fs::recursive_directory_iterator(directory, ec)) {
    if (!entry.is_regular_file(ec)) continue;
    const std::string name = entry.path().filename().string();
    if (!skip_prefix.empty() && name.compare(0, skip_prefix.size(), skip_prefix) == 0) continue;
    total += entry.file_size(ec);
  }
  return total;
}

void Emit(const char* key, double value) { std::printf("%s=%.6g\n", key, value); }

void Emit(const char* key, uint64_t value) { std::printf("%s=%" PRIu64 "\n", key, value); }

void Emit(const char* key, std::string_view value) {
  std::printf("%s=%.*s\n", key, static_cast<int>(value.size()), value.data());
}

uint64_t Percentile(const std::vector<uint32_t>& sorted, double p) {
  if (sorted.empty()) return 0;
  const auto at = static_cast<size_t>(p / 100.0 * static_cast<double>(sorted.size() - 1) + 0.5);
  return sorted[std::min(at, sorted.size() - 1)];
}

}  // namespace Tarn::Bench
