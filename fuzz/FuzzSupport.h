#pragma once

// What the file-format fuzzers share: one scratch directory for the whole
// run (creating one per input would cost more than most inputs do), whole
// files written through Keel, and a check that fails the run loudly.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "Keel/OS/File.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"
#include "Tarn/Storage/ITimeProvider.h"

namespace tarn::fuzz {

// A broken invariant is a finding: abort so that libFuzzer keeps the input.
#define TARN_FUZZ_CHECK(condition)                                                       \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (0)

// Under /dev/shm when there is one: the store flushes what it writes, and a
// flush on a disk would dominate every run.
class ScratchDir {
 public:
  ScratchDir() {
    const char* base = std::getenv("TARN_FUZZ_TMPDIR");
    std::string root = base != nullptr                             ? base
                       : std::filesystem::is_directory("/dev/shm") ? "/dev/shm"
                                                                   : "/tmp";
    std::string pattern = root + "/tarn-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string File(std::string_view name) const { return Keel::OS::Path::Join(path_, name); }

  // Leaves the directory empty, ready for the next input.
  void Clear() const {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(path_, ignored)) {
      std::filesystem::remove_all(entry.path(), ignored);
    }
  }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const void* data, size_t size) {
  Keel::OS::File file;
  TARN_FUZZ_CHECK(file.Open(path, Keel::OS::File::Mode::CreateTruncate));
  TARN_FUZZ_CHECK(size == 0 || file.Write(data, size));
  TARN_FUZZ_CHECK(file.Close());
}

inline std::string ReadFile(const std::string& path) {
  Keel::OS::File file;
  uint64_t size = 0;
  TARN_FUZZ_CHECK(file.Open(path, Keel::OS::File::Mode::Read) && file.GetSize(size));
  std::string bytes(size, '\0');
  TARN_FUZZ_CHECK(size == 0 || file.ReadExact(bytes.data(), size));
  return bytes;
}

// Appends `value` as `width` little-endian bytes; widths past 8 pad with 0.
inline void PutLE(std::string& out, uint64_t value, int width) {
  for (int i = 0; i < width; ++i) out.push_back(i < 8 ? static_cast<char>(value >> (8 * i)) : 0);
}

// Little-endian fields of the inputs, read without leaving them.
class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t Left() const { return size_ - at_; }
  uint64_t Take(size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width && at_ < size_; ++i) value |= uint64_t{data_[at_++]} << (8 * i);
    return value;
  }
  // Up to `length` bytes from here on.
  std::string_view Bytes(size_t length) {
    if (length > Left()) length = Left();
    std::string_view out(reinterpret_cast<const char*>(data_ + at_), length);
    at_ += length;
    return out;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

// A store's clock that stays where the input put it.
class FixedClock final : public Tarn::Storage::ITimeProvider {
 public:
  explicit FixedClock(uint64_t epoch) : epoch_(epoch) {}
  uint64_t GetEpochTime() override { return epoch_; }
  uint64_t GetSystemTime() override { return epoch_ * 1000; }

 private:
  uint64_t epoch_;
};

}  // namespace tarn::fuzz
