#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Tarn::Tool {

// How times, sizes and counts are read from and written for a person.

// Reads "now", "2026-11-21", "2026-11-21T08:30", "2026-11-21 08:30:00.250"
// or any of these with "Z" or "+HH:MM"; without a zone the time is UTC. A
// date alone means its first millisecond, or its last when `end_of_day` is
// set (so "--to 2026-11-21" includes that day). False for anything else.
bool ParseTime(std::string_view text, bool end_of_day, int64_t& ms);

// "2026-11-21T08:30:00Z", with ".250" when `with_ms` and the time has them.
std::string FormatTime(int64_t ms, bool with_ms = false);
// "2026-11-21" of a store day number (days since 2000-01-01).
std::string FormatDay(uint16_t day);

// Reads a byte size: digits with an optional K, M, G or T suffix (powers of
// 1,024; "KiB"/"KB" and lower case are accepted too). False on overflow.
bool ParseSize(std::string_view text, uint64_t& bytes);
// "812 B", "4.2 KiB", "17.3 MiB", "1.20 GiB".
std::string FormatBytes(uint64_t bytes);
// "60,000".
std::string FormatCount(uint64_t value);
// "1 block", "2 blocks".
std::string Counted(uint64_t n, const std::string& noun);
// "2.4 s", "850 ms".
std::string FormatSeconds(double seconds);

// Milliseconds since 1970 of the real clock, whatever clock Keel was given.
int64_t RealNowMs();

}  // namespace Tarn::Tool
