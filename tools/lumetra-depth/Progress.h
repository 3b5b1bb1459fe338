// A one-line progress bar on standard error, drawn only when standard error
// is a terminal, so logs and pipes stay clean.
#pragma once

#include <chrono>
#include <string>

namespace LumoTool {

class Progress {
 public:
  explicit Progress(int total);  // total <= 0: count without a bar
  ~Progress() { finish(); }

  // Draws frames done, the rate so far and, with a total, the time left.
  void update(int done, const std::string& note);
  // Clears the bar's line, before a report is printed.
  void finish();

 private:
  int total_;
  bool shown_;
  std::chrono::steady_clock::time_point started_;
};

}  // namespace LumoTool
