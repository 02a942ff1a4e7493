#include "tarn/synthetic/Random.h"

#include <algorithm>
#include <cmath>
#include <string_view>

namespace Tarn::Tool {

size_t Random::Skewed(size_t n, double skew) {
  size_t index = static_cast<size_t>(std::pow(Unit(), skew) * static_cast<double>(n));
  return std::min(index, n - 1);
}

WeightedChoice::WeightedChoice(std::span<const double> weights) {
  double sum = 0;
  cumulative_.reserve(weights.size());
  for (double w : weights) {
    sum += w > 0 ? w : 0;
    cumulative_.push_back(sum);
  }
}

size_t WeightedChoice::Pick(Random& random) const {
  double target = random.Unit() * cumulative_.back();
  auto it = std::upper_bound(cumulative_.begin(), cumulative_.end(), target);
  return std::min(static_cast<size_t>(it - cumulative_.begin()), cumulative_.size() - 1);
}

uint64_t HashOf(std::string_view bytes, uint64_t salt) {
  uint64_t h = 0xCBF29CE484222325ull ^ salt;
  for (unsigned char c : bytes) h = (h ^ c) * 0x100000001B3ull;
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDull;
  h ^= h >> 33;
  return h;
}

}  // namespace Tarn::Tool
