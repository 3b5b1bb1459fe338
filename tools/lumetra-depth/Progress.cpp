#include "Progress.h"

#include <unistd.h>

#include <cstdio>

namespace LumoTool {

Progress::Progress(int total)
    : total_(total), shown_(isatty(STDERR_FILENO) != 0), started_(std::chrono::steady_clock::now()) {}

void Progress::finish() {
  if (shown_) std::fputs("\r\033[K", stderr);
  shown_ = false;
}

void Progress::update(int done, const std::string& note) {
  if (!shown_) return;
  constexpr int kWidth = 30;
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  const double rate = seconds > 0.0 ? done / seconds : 0.0;
  if (total_ > 0) {
    const int filled = done >= total_ ? kWidth : done * kWidth / total_;
    const int left = rate > 0.0 ? static_cast<int>((total_ - done) / rate + 0.5) : 0;
    std::fprintf(stderr, "\r[%.*s%*s] %d/%d %.1f frames/s %d:%02d left %s\033[K", filled,
                 "##############################", kWidth - filled, "", done, total_, rate, left / 60, left % 60,
                 note.c_str());
  } else {
    std::fprintf(stderr, "\r%d frames %.1f frames/s %s\033[K", done, rate, note.c_str());
  }
  std::fflush(stderr);
}

}  // namespace LumoTool
