#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Tarn::Tool {

// A one-line progress bar on standard error, redrawn at most ten times a
// second. It shows only when standard error is a terminal (and the user did
// not ask for quiet), so piped and logged runs stay clean.
class Progress {
 public:
  // `total` 0: the amount is not known and no bar is drawn, only the count.
  Progress(std::string label, uint64_t total, std::string unit);
  ~Progress() { Finish(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  static void SetQuiet(bool quiet);
  static bool Shown();

  void Update(uint64_t done);
  void SetTotal(uint64_t total) { total_ = total; }
  // Clears the line; later updates are ignored.
  void Finish();

 private:
  void Draw(uint64_t done);

  std::string label_;
  uint64_t total_;
  std::string unit_;
  bool enabled_;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_draw_;
};

}  // namespace Tarn::Tool
