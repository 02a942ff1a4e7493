#include "tarn/cli/Progress.h"

#include <unistd.h>

#include <cstdio>

#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

bool g_quiet = false;
constexpr int kBarWidth = 30;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

}  // namespace

void Progress::SetQuiet(bool quiet) { g_quiet = quiet; }

bool Progress::Shown() { return !g_quiet && isatty(STDERR_FILENO) == 1; }

Progress::Progress(std::string label, uint64_t total, std::string unit)
    : label_(std::move(label)),
      total_(total),
      unit_(std::move(unit)),
      enabled_(Shown()),
      start_(std::chrono::steady_clock::now()),
      last_draw_(start_) {}  // the first line waits a moment: early rates mislead

void Progress::Update(uint64_t done) {
  if (!enabled_) return;
  auto now = std::chrono::steady_clock::now();
  if (now - last_draw_ < kRedrawInterval) return;
  last_draw_ = now;
  Draw(done);
}

void Progress::Draw(uint64_t done) {
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  double rate = elapsed > 0 ? static_cast<double>(done) / elapsed : 0;
  std::string line = "\r" + label_ + " ";
  if (total_ != 0) {
    uint64_t shown = done < total_ ? done : total_;
    int filled = static_cast<int>(kBarWidth * shown / total_);
    line += "[" + std::string(filled, '#') + std::string(kBarWidth - filled, ' ') + "] ";
    line += std::to_string(100 * shown / total_) + "% ";
  }
  line += FormatCount(done);
  if (total_ != 0) line += "/" + FormatCount(total_);
  line += " " + unit_;
  if (rate > 0) line += "  " + FormatCount(static_cast<uint64_t>(rate)) + " " + unit_ + "/s";
  if (total_ != 0 && rate > 0 && done < total_) {
    line += "  " + FormatSeconds(static_cast<double>(total_ - done) / rate) + " left";
  }
  line += "\x1b[K";  // clear what a longer previous line left
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
}

void Progress::Finish() {
  if (!enabled_) return;
  enabled_ = false;
  std::fputs("\r\x1b[K", stderr);
  std::fflush(stderr);
}

}  // namespace Tarn::Tool
