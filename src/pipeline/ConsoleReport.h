// The pipeline's report of a calibration import: standard output, the error
// line, standard error, written as the import goes.
#pragma once

#include <cstdio>
#include <string>

#include "api/ErrorLog.h"
#include "camera/CalibrationReport.h"

namespace KorvLumetra {

class ConsoleReport : public CalibrationReport {
 public:
  void print(const std::string& text) override { std::fputs(text.c_str(), stdout); }
  void error(const char* function, const std::string& message) override { logError(function, message.c_str()); }
  void warn(const std::string& text) override { std::fputs(text.c_str(), stderr); }
};

}  // namespace KorvLumetra
