// Command-line parsing of one subcommand: "--flag value" options, "--switch"
// options and positional arguments, in any order. Anything not declared by
// the subcommand is a UsageError, so typos never pass silently.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace LumoTool {

class Options {
 public:
  // `valued` lists the options that take a value, `switches` those that do
  // not; "--help" and "-h" are always known.
  Options(const std::vector<std::string>& args, const std::vector<std::string>& valued,
          const std::vector<std::string>& switches);

  bool help() const { return help_; }
  bool has(const std::string& name) const;
  std::string text(const std::string& name, const std::string& fallback = "") const;
  // Whole numbers and decimals, checked against the inclusive bounds given.
  int integer(const std::string& name, int fallback, int minimum, int maximum) const;
  double real(const std::string& name, double fallback, double minimum, double maximum) const;

  // Positional arguments; exactly `count` are required (UsageError naming `what` otherwise).
  const std::vector<std::string>& positional() const { return positional_; }
  void expectPositional(std::size_t count, const std::string& what) const;

 private:
  std::vector<std::pair<std::string, std::string>> values_;  // name, value ("" for switches)
  std::vector<std::string> positional_;
  bool help_ = false;
};

}  // namespace LumoTool
