// calib: the camera-chain file of a recording in the EuRoC-style layout,
// from its sensor.yaml files, on standard output.
#include <cstdio>
#include <string>

#include "AslCalibration.h"
#include "AslFolder.h"
#include "Commands.h"
#include "Options.h"
#include "ToolError.h"

namespace LumoTool {

namespace {

const char* const kHelp =
    "usage: lumetra-depth calib ASL_FOLDER > camchain.yaml\n"
    "\n"
    "Writes the camera chain of a recording in the layout of the EuRoC-style data\n"
    "sets (ASL_FOLDER is mav0/ or the folder holding it) as the calibration file the\n"
    "library loads, from mav0/cam0/sensor.yaml and mav0/cam1/sensor.yaml:\n"
    "  intrinsics, distortion_coeffs, distortion_model (radial-tangential becomes\n"
    "  radtan), resolution; T_cam_imu = inverse(T_BS) for each camera and, for cam1,\n"
    "  T_cn_cnm1 = inverse(T_BS1) * T_BS0.\n"
    "Nothing is printed when a sensor.yaml cannot be used.\n";

}  // namespace

int calibCommand(const Args& args) {
  const Options options(args, {}, {});
  if (options.help()) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  options.expectPositional(1, "ASL_FOLDER");
  const std::string input = options.positional()[0];
  std::string mav0 = AslFolder::find(input);
  if (mav0.empty()) throw cannotRead(input, "not a recording folder (mav0/cam0, mav0/cam1)");
  const std::string text = camchainFromAsl(mav0);
  std::fputs(text.c_str(), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace LumoTool
