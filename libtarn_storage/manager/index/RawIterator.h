#pragma once

#include <concepts>
#include <cstdint>

namespace Tarn::Storage {

// One event position in 64 bits: day number in bits 0-15, the block's index
// within the day in bits 16-39 and the event's index within the block in bits
// 40-63. All bits set means no position.
class RawIterator {
 public:
  static constexpr uint64_t Invalid = 0xFFFFFFFFFFFFFFFFull;
  static constexpr uint64_t InvalidEventIndex = 0xFFFFFFFFull;

  static constexpr uint64_t kDayMask = 0xFFFFull;
  static constexpr uint64_t kBlockMask = 0xFFFFFFull;
  static constexpr uint64_t kEventMask = 0xFFFFFFull;
  static constexpr int kBlockShift = 16;
  static constexpr int kEventShift = 40;
  static constexpr uint64_t kKeyMask = (1ull << kEventShift) - 1;

  constexpr RawIterator() : value_(Invalid) {}
  constexpr RawIterator(uint64_t value) : value_(value) {}  // NOLINT: positions are plain numbers
  // Keeps the low 16 bits of the day and the low 24 of block and event.
  constexpr RawIterator(uint64_t day, uint64_t block, uint64_t event)
      : value_((day & kDayMask) | ((block & kBlockMask) << kBlockShift) |
               ((event & kEventMask) << kEventShift)) {}

  constexpr uint16_t Day() const { return static_cast<uint16_t>(value_ & kDayMask); }
  constexpr uint32_t Block() const {
    return static_cast<uint32_t>((value_ >> kBlockShift) & kBlockMask);
  }
  constexpr uint32_t Event() const {
    return static_cast<uint32_t>((value_ >> kEventShift) & kEventMask);
  }

  // The block this position lies in, with the event index cleared.
  constexpr uint64_t AsKey() const { return value_ & kKeyMask; }

  constexpr bool IsValid() const { return value_ != Invalid; }
  constexpr operator uint64_t() const { return value_; }  // NOLINT
  constexpr explicit operator bool() const { return IsValid(); }
  // Templates, so that comparing with any integer literal is an exact match.
  template <std::integral T>
  constexpr bool operator==(T other) const {
    return value_ == static_cast<uint64_t>(other);
  }
  template <std::integral T>
  constexpr bool operator!=(T other) const {
    return value_ != static_cast<uint64_t>(other);
  }

 private:
  uint64_t value_;
};

}  // namespace Tarn::Storage
