#include "StdoutCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <pybind11/pybind11.h>

namespace LumoPython {

namespace {

std::mutex& captureMutex() {
  static std::mutex mutex;
  return mutex;
}

void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

StdoutCapture::StdoutCapture() : lock_(captureMutex()) {
  std::fflush(stdout);
  char name[] = "/tmp/lumetra_depth_stdout_XXXXXX";
  file_ = mkstemp(name);
  if (file_ < 0) return;
  unlink(name);
  saved_ = dup(STDOUT_FILENO);
  if (saved_ < 0 || dup2(file_, STDOUT_FILENO) < 0) {
    if (saved_ >= 0) close(saved_);
    close(file_);
    saved_ = file_ = -1;
  }
}

StdoutCapture::~StdoutCapture() { finish(); }

std::string StdoutCapture::finish() {
  if (file_ < 0) return {};
  // The library prints through stdio, which buffers when stdout is a file.
  std::fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
  std::string text;
  char buffer[4096];
  lseek(file_, 0, SEEK_SET);
  for (ssize_t n; (n = read(file_, buffer, sizeof(buffer))) > 0;) text.append(buffer, static_cast<std::size_t>(n));
  close(file_);
  saved_ = file_ = -1;
  writeAll(STDOUT_FILENO, text);
  return text;
}

void flushPythonStdout() {
  const pybind11::object out = pybind11::module_::import("sys").attr("stdout");
  if (!out.is_none()) out.attr("flush")();
}

std::vector<std::string> errorLines(const std::string& text) {
  static const std::string kLevel = "[ ERROR] ";
  std::vector<std::string> lines;
  std::size_t at = 0;
  while ((at = text.find(kLevel, at)) != std::string::npos) {
    at += kLevel.size();
    const std::size_t end = text.find('\n', at);
    std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
    // A message printed without its newline runs into the next line's time stamp.
    const std::size_t next = line.find(kLevel);
    if (next != std::string::npos) line = line.substr(0, next >= 24 ? next - 24 : 0);
    lines.push_back(line);
  }
  return lines;
}

}  // namespace LumoPython
