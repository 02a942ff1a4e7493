#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace Tarn::Tool {

// A small generator whose output depends on the seed alone, on every
// platform and standard library: synthetic stores must be reproducible, and
// the distributions of <random> are not specified bit for bit.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  // splitmix64.
  uint64_t Next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }

  // Uniform in [0, n); n must not be 0. The bias of a 64-bit multiply is
  // far below anything a synthetic data set could show.
  uint64_t Below(uint64_t n) {
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint64_t>((static_cast<Wide>(Next()) * n) >> 64);
  }
  // Uniform in [low, high], both included.
  uint64_t Between(uint64_t low, uint64_t high) { return low + Below(high - low + 1); }
  // Uniform in [0, 1).
  double Unit() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }
  bool Chance(double probability) { return Unit() < probability; }

  // An index in [0, n) that favours the head: a few items take most picks,
  // as a few hosts or files do on a real machine. Larger `skew`, steeper.
  size_t Skewed(size_t n, double skew = 3.0);

  template <typename T>
  const T& Pick(std::span<const T> items) {
    return items[Below(items.size())];
  }
  template <typename T, size_t N>
  const T& Pick(const T (&items)[N]) {
    return items[Below(N)];
  }

 private:
  uint64_t state_;
};

// Picks indices with given relative weights in O(log n).
class WeightedChoice {
 public:
  WeightedChoice() = default;
  explicit WeightedChoice(std::span<const double> weights);
  size_t Pick(Random& random) const;
  bool Empty() const { return cumulative_.empty(); }

 private:
  std::vector<double> cumulative_;
};

// A 64-bit hash of bytes (FNV-1a, then mixed): the same input gives the
// same value, so a file keeps its hash wherever it shows up.
uint64_t HashOf(std::string_view bytes, uint64_t salt = 0);

}  // namespace Tarn::Tool
