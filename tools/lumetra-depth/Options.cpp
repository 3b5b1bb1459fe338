#include "Options.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "ToolError.h"

namespace LumoTool {

namespace {

std::string shortNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", value);
  return text;
}

bool listed(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

Options::Options(const std::vector<std::string>& args, const std::vector<std::string>& valued,
                 const std::vector<std::string>& switches) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--help" || arg == "-h") {
      help_ = true;
    } else if (arg.size() > 2 && arg.compare(0, 2, "--") == 0) {
      // "--name=value" and "--name value" both work.
      const std::size_t equals = arg.find('=');
      const std::string name = arg.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
      if (listed(valued, name)) {
        if (equals != std::string::npos) {
          values_.emplace_back(name, arg.substr(equals + 1));
        } else if (i + 1 < args.size()) {
          values_.emplace_back(name, args[++i]);
        } else {
          throw UsageError("option --" + name + " needs a value");
        }
      } else if (listed(switches, name) && equals == std::string::npos) {
        values_.emplace_back(name, "");
      } else {
        throw UsageError("unknown option '" + arg + "'");
      }
    } else {
      positional_.push_back(arg);
    }
  }
}

bool Options::has(const std::string& name) const {
  return std::any_of(values_.begin(), values_.end(), [&](const auto& entry) { return entry.first == name; });
}

std::string Options::text(const std::string& name, const std::string& fallback) const {
  // The last occurrence wins, as in most command-line tools.
  for (auto it = values_.rbegin(); it != values_.rend(); ++it) {
    if (it->first == name) return it->second;
  }
  return fallback;
}

int Options::integer(const std::string& name, int fallback, int minimum, int maximum) const {
  if (!has(name)) return fallback;
  const std::string value = text(name);
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0 || number < minimum || number > maximum) {
    throw UsageError("--" + name + " takes a whole number from " + std::to_string(minimum) + " to " +
                     std::to_string(maximum) + ", not '" + value + "'");
  }
  return static_cast<int>(number);
}

double Options::real(const std::string& name, double fallback, double minimum, double maximum) const {
  if (!has(name)) return fallback;
  const std::string value = text(name);
  char* end = nullptr;
  errno = 0;
  const double number = std::strtod(value.c_str(), &end);
  if (value.empty() || *end != '\0' || errno != 0 || !(number >= minimum && number <= maximum)) {
    throw UsageError("--" + name + " takes a number from " + shortNumber(minimum) + " to " +
                     shortNumber(maximum) + ", not '" + value + "'");
  }
  return number;
}

void Options::expectPositional(std::size_t count, const std::string& what) const {
  if (positional_.size() < count) throw UsageError("missing " + what);
  if (positional_.size() > count) throw UsageError("unexpected argument '" + positional_[count] + "'");
}

}  // namespace LumoTool
