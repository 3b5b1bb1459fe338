// Collects what the process writes to standard output while a library call
// runs, so that the binding can read the library's error lines, and then
// writes it all through to the real standard output: nothing is swallowed.
//
// Captures are serialised by a process-wide lock (file descriptor 1 is
// process-wide). Output of other threads during a capture is collected and
// written through as well.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace LumoPython {

class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  // Restores standard output, writes the collected text through and returns it.
  std::string finish();

 private:
  std::unique_lock<std::mutex> lock_;
  int saved_ = -1;  // the real standard output
  int file_ = -1;   // the temporary file collecting it; -1 when capturing failed
};

// Flushes Python's sys.stdout, so that what Python printed before a capture
// is not taken for the library's. Needs the GIL.
void flushPythonStdout();

// "function(): message" of every error line in `text` (the library's lines
// read "YYYY-MM-DD hh:mm:ss.mmm [ ERROR] function(): message").
std::vector<std::string> errorLines(const std::string& text);

}  // namespace LumoPython
