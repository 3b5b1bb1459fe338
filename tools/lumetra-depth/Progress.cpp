#include "Progress.h"

#include <unistd.h>

#include <cstdio>

namespace LumoTool {

Progress::Progress(int total) : total_(total), shown_(isatty(STDERR_FILENO) != 0) {}

void Progress::finish() {
  if (shown_) std::fputs("\r\033[K", stderr);
  shown_ = false;
}

void Progress::update(int done, const std::string& note) {
  if (!shown_) return;
  constexpr int kWidth = 30;
  if (total_ > 0) {
    const int filled = done >= total_ ? kWidth : done * kWidth / total_;
    std::fprintf(stderr, "\r[%.*s%*s] %d/%d %s\033[K", filled, "##############################",
                 kWidth - filled, "", done, total_, note.c_str());
  } else {
    std::fprintf(stderr, "\r%d frames %s\033[K", done, note.c_str());
  }
  std::fflush(stderr);
}

}  // namespace LumoTool
