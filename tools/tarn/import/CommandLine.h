#pragma once

// Reading Windows command lines the way the program they start reads them.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tarn::Tool {

// Where each argument starts: arguments are separated by spaces or tabs
// outside double quotes.
std::vector<uint64_t> ArgumentOffsets(std::string_view line);

// The program a command line runs: its first argument without its quotes.
// Unquoted, the program may hold spaces (C:\Program Files\x\y.exe -k): it
// then ends after ".exe" when the line has one, else at the first space.
std::string ProgramOf(std::string_view line);

}  // namespace Tarn::Tool
