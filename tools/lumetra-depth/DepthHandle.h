// A library handle for the lifetime of a scope, created from a
// configuration file through the exported functions, as any host does.
#pragma once

#include <string>
#include <vector>

namespace LumoTool {

class DepthHandle {
 public:
  // What the library prints during creation (the calibration matrix, error
  // lines) is held back; errors() gives its error messages.
  explicit DepthHandle(const std::string& configPath);
  ~DepthHandle();
  DepthHandle(const DepthHandle&) = delete;
  DepthHandle& operator=(const DepthHandle&) = delete;

  void* get() const { return handle_; }
  const std::vector<std::string>& errors() const { return errors_; }

  // The messages of the library's error lines in text it printed.
  static std::vector<std::string> errorMessages(const std::string& printed);

 private:
  void* handle_ = nullptr;
  std::vector<std::string> errors_;
};

}  // namespace LumoTool
