// Scratch files for tests: a temporary directory removed with its contents,
// a scoped change of the working directory, and a one-call file writer.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace LumoTest {

// A mkdtemp directory, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/lumo_test_XXXXXX";
    const char* made = mkdtemp(pattern);
    path_ = made != nullptr ? made : "";
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Switches back to the working directory it found.
class ScopedChdir {
 public:
  explicit ScopedChdir(const std::string& dir) {
    char buffer[4096];
    if (getcwd(buffer, sizeof(buffer)) != nullptr) previous_ = buffer;
    ok_ = chdir(dir.c_str()) == 0;
  }
  ~ScopedChdir() {
    if (!previous_.empty() && chdir(previous_.c_str()) != 0) std::perror("chdir");
  }
  bool ok() const { return ok_; }

 private:
  std::string previous_;
  bool ok_ = false;
};

inline void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

}  // namespace LumoTest
