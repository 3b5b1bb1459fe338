// Holds back what is written to standard output or standard error for the
// duration of a scope: the library prints its error lines and a calibration
// matrix on standard output, and image decoders complain on standard error,
// while the program's own report must stay readable (one line per error).
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace LumoTool {

class HeldOutput {
 public:
  explicit HeldOutput(int fd = STDOUT_FILENO);  // STDOUT_FILENO or STDERR_FILENO
  ~HeldOutput() { finish(); }                   // lets output through again
  HeldOutput(const HeldOutput&) = delete;
  HeldOutput& operator=(const HeldOutput&) = delete;

  // Lets output through again and returns what was held back meanwhile.
  std::string finish();

 private:
  int fd_;
  int saved_ = -1;
  std::FILE* file_ = nullptr;
};

}  // namespace LumoTool
