// The library's one report channel: a time-stamped error line on stdout.
//
//   2026-11-21 12:00:00.045 [ ERROR] feedStereoImage(): message
//
// Any thread may log; lines from two threads may interleave (no lock, by design).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace KorvLumetra {

// Logs a fixed message; a newline is appended.
void logError(const char* function, const char* message);

// Logs a formatted message exactly as printf writes it: the format carries
// its own newline where it has one.
void logErrorf(const char* function, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes "YYYY-MM-DD hh:mm:ss.mmm [ ERROR] function(): " for a wall-clock time
// given in nanoseconds since the epoch (local time, milliseconds truncated).
// Returns the length written, like snprintf.
int formatErrorPrefix(char* out, std::size_t capacity, int64_t epochNanos, const char* function);

// Text made fit for one error line: line ends become blanks, trailing blanks
// go (OpenCV's exception texts span lines).
std::string oneLine(const char* text);

// A frame time stamp as printed into debug file names ("%llu").
std::string formatTimestamp(uint64_t timestamp);

}  // namespace KorvLumetra
