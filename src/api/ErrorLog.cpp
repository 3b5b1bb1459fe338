#include "api/ErrorLog.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace KorvLumetra {

int formatErrorPrefix(char* out, std::size_t capacity, int64_t epochNanos, const char* function) {
  // Seconds and milliseconds come from the one reading so they always agree.
  const std::time_t seconds = static_cast<std::time_t>(epochNanos / 1000000000);
  const int millis = static_cast<int>((epochNanos / 1000000) % 1000);
  std::tm local{};
  localtime_r(&seconds, &local);
  return std::snprintf(out, capacity, "%d-%02d-%02d %02d:%02d:%02d.%03d [%s] %s(): ",
                       local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                       local.tm_min, local.tm_sec, millis, " ERROR", function);
}

static void printPrefix(const char* function) {
  const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  char prefix[256];
  formatErrorPrefix(prefix, sizeof(prefix), now, function);
  std::fputs(prefix, stdout);
}

void logError(const char* function, const char* message) {
  printPrefix(function);
  std::puts(message);
}

void logErrorf(const char* function, const char* format, ...) {
  printPrefix(function);
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
}

std::string oneLine(const char* text) {
  std::string line = text != nullptr ? text : "";
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

std::string formatTimestamp(uint64_t timestamp) {
  char text[32];
  std::snprintf(text, sizeof(text), "%llu", static_cast<unsigned long long>(timestamp));
  return text;
}

}  // namespace KorvLumetra
