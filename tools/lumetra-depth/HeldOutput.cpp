#include "HeldOutput.h"

#include <iostream>

namespace LumoTool {

namespace {

void flushAll() {
  std::cout.flush();
  std::cerr.flush();
  std::fflush(stdout);
  std::fflush(stderr);
}

}  // namespace

HeldOutput::HeldOutput(int fd) : fd_(fd) {
  flushAll();
  file_ = std::tmpfile();
  if (file_ == nullptr) return;  // nothing held back: the text just shows
  saved_ = dup(fd_);
  if (saved_ < 0 || dup2(fileno(file_), fd_) < 0) {
    if (saved_ >= 0) close(saved_);
    saved_ = -1;
    std::fclose(file_);
    file_ = nullptr;
  }
}

std::string HeldOutput::finish() {
  if (file_ == nullptr) return "";
  flushAll();
  dup2(saved_, fd_);
  close(saved_);
  saved_ = -1;
  std::string text;
  std::rewind(file_);
  char buffer[4096];
  std::size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof(buffer), file_)) > 0) text.append(buffer, n);
  std::fclose(file_);
  file_ = nullptr;
  return text;
}

}  // namespace LumoTool
