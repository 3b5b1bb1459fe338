// Where a calibration import reports, and how it ends.
//
// The imports write nothing themselves: the pipeline hands them a report that
// prints (standard output, the error line, standard error), a tool may collect
// the lines instead, and a fuzzer may drop them.
#pragma once

#include <string>

namespace KorvLumetra {

class CalibrationReport {
 public:
  virtual ~CalibrationReport() = default;
  // Text for standard output, as it stands (the tracker record's dump, "calib: " blocks).
  virtual void print(const std::string& text) = 0;
  // One error line of `function` (the pipeline's name of the step) with `message`.
  virtual void error(const char* function, const std::string& message) = 0;
  // Text for standard error, as it stands (the readers' "[CheckParseYaml] ..." message).
  virtual void warn(const std::string& text) = 0;
};

// A report that keeps nothing.
class SilentReport : public CalibrationReport {
 public:
  void print(const std::string&) override {}
  void error(const char*, const std::string&) override {}
  void warn(const std::string&) override {}
};

// How an import step ended. Fatal marks the faults on which the host process
// is ended on purpose (a missing required key, unequal horizontal and vertical
// scaling, an unknown model of the depth camera): the caller ends it with
// `exitStatus` once the report is written.
struct ImportStatus {
  enum Outcome { kOk, kRefused, kFatal };
  Outcome outcome = kOk;
  int exitStatus = 0;

  static ImportStatus ok() { return {kOk, 0}; }
  static ImportStatus refused() { return {kRefused, 0}; }
  static ImportStatus fatal(int status) { return {kFatal, status}; }
  bool isOk() const { return outcome == kOk; }
};

}  // namespace KorvLumetra
