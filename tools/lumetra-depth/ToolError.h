// The one kind of failure the program reports to its user: a line of text that
// main prints as "lumetra-depth: <what>" on standard error before exiting
// non-zero. Usage mistakes exit with 2, everything else with 1.
#pragma once

#include <stdexcept>
#include <string>

namespace LumoTool {

class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& what, int status = 1) : std::runtime_error(what), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

// A bad command line: unknown option, missing argument, malformed number.
class UsageError : public ToolError {
 public:
  explicit UsageError(const std::string& what) : ToolError(what, 2) {}
};

// "cannot read 'path': reason", the message for every input that is missing or unreadable.
inline ToolError cannotRead(const std::string& path, const std::string& reason) {
  return ToolError("cannot read '" + path + "': " + reason);
}

}  // namespace LumoTool
