// Scratch files for tests: a temporary directory removed with its contents,
// and a one-call file writer.
#pragma once

#include <stdlib.h>

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

inline void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

}  // namespace LumoTest
