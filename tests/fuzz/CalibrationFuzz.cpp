// The calibration file's import on fuzzed documents: reading, the checks of
// every value, the depth table and the rectification maps, without a
// pipeline. The import reports the faults that end a host on purpose instead
// of ending the process, so every document runs to its end. Nothing here
// catches: an exception that escapes (from OpenCV or the readers) is a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "camera/StereoCalibration.h"
#include "yaml/YamlNode.h"

namespace {

// Small views keep the maps and the table cheap: thousands of inputs a second.
KorvLumetra::StereoCalibration::Setup smallSetup() {
  KorvLumetra::StereoCalibration::Setup setup;
  setup.inputSizes = {{64, 40}, {64, 40}, {96, 54}};
  setup.workingSizes = {{32, 20}, {32, 20}, {96, 54}};
  setup.scaleRatios = {0.5f, 0.5f, 1.0f};
  return setup;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KorvTech::YamlNode root;
  root.type = KorvTech::YamlNode::Map;
  root.parse(std::string(reinterpret_cast<const char*>(data), size), "fuzz");
  static const KorvLumetra::StereoCalibration::Setup setup = smallSetup();
  KorvLumetra::SilentReport report;
  KorvLumetra::StereoCalibration calibration;
  if (calibration.importDocument(root, setup, report).isOk()) calibration.rectify(setup, report);
  return 0;
}
