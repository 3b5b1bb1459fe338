// The tracker record's import on fuzzed bytes: the record as another library
// would fill it, then its checks, the depth table and the rectification maps.
// An exception that escapes is a finding.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "camera/StereoCalibration.h"
#include "lumetra_depth.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LumoCalibrationParam record{};
  std::memcpy(&record, data, size < sizeof(record) ? size : sizeof(record));
  KorvLumetra::StereoCalibration::Setup setup;
  setup.inputSizes = {{64, 40}, {64, 40}, {96, 54}};
  setup.workingSizes = {{64, 40}, {64, 40}, {96, 54}};
  setup.scaleRatios = {1.0f, 1.0f, 1.0f};
  KorvLumetra::SilentReport report;
  KorvLumetra::StereoCalibration calibration;
  if (calibration.importRecord(record, setup, report).isOk()) calibration.rectify(setup, report);
  return 0;
}
