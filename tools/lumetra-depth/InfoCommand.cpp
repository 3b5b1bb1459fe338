// info: what a configuration says, what the library makes of it (rectified
// projections, baseline, the depth range the matcher can measure), and the
// settings that look wrong.
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "ConfigCheck.h"
#include "ConfigFile.h"
#include "DepthHandle.h"
#include "Options.h"
#include "ToolError.h"
#include "lumetra_depth.h"

namespace LumoTool {

namespace {

const char* const kHelp =
    "usage: lumetra-depth info CONFIG\n"
    "\n"
    "Prints the settings of CONFIG and the calibration it names, both read with\n"
    "the library's own reader and checks, and, when nothing would end the\n"
    "process, creates a handle and prints the rectified projections P1 and P2 it\n"
    "reports, the baseline -P2[3]/P2[0] and the depth range the matcher measures.\n"
    "Then lists what the library refuses (with its reason) and what looks wrong:\n"
    "missing or unknown keys, words that read as false, sizes that do not match\n"
    "the calibration's aspect, no matcher threads, an empty or tiny depth range.\n"
    "Exits with status 1 when one of them would stop the library from producing depth.\n";

void printMatrix(const char* name, const float* m) {
  for (int r = 0; r < 3; ++r) {
    std::printf("  %-4s [ %12.4f %12.4f %12.4f %14.6f ]\n", r == 0 ? name : "", m[4 * r], m[4 * r + 1], m[4 * r + 2],
                m[4 * r + 3]);
  }
}

const char* typeName(KeyType type) {
  switch (type) {
    case KeyType::Integer: return "integer";
    case KeyType::Real: return "number";
    case KeyType::Bool: return "true/false";
    default: return "text";
  }
}

}  // namespace

int infoCommand(const Args& args) {
  const Options options(args, {}, {});
  if (options.help()) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  options.expectPositional(1, "CONFIG");
  const std::string configPath = options.positional()[0];
  const ConfigFile config = ConfigFile::load(configPath);
  const Settings s = Settings::from(config);

  std::printf("Configuration %s\n", configPath.c_str());
  for (const ConfigKey& key : configKeys()) {
    std::string value;
    if (config.has(key.name)) {
      value = config.text(key.name);
      if (value.empty()) value = "\"\"";
    } else if (key.required) {
      value = "MISSING (" + std::string(typeName(key.type)) + ")";
    } else {
      value = "(absent: " + std::string(key.fallback[0] != '\0' ? key.fallback : "empty") + ")";
    }
    std::printf("  %-21s %-22s %s\n", key.name, value.c_str(), key.meaning);
  }
  std::printf("Working size        %dx%d per view; the matcher searches %d disparities\n", s.workingWidth,
              s.workingHeight, s.searchRange());

  CalibrationPreview preview;
  std::vector<Finding> findings = checkConfiguration(config, &preview);
  if (preview.imported) {
    const KorvLumetra::StereoCalibration& calib = preview.calibration;
    std::printf("Calibration %s: %zu camera%s, as the library imports them (at the input size)\n",
                s.calibPath.c_str(), calib.cameraCount(), calib.cameraCount() == 1 ? "" : "s");
    for (std::size_t i = 0; i < calib.cameraCount(); ++i) {
      const cv::Mat& K = calib.kInput()[i];
      std::printf("  cam%zu  %-12s fx %.2f fy %.2f cx %.2f cy %.2f", i, preview.models[i].c_str(), K.at<double>(0, 0),
                  K.at<double>(1, 1), K.at<double>(0, 2), K.at<double>(1, 2));
      if (i >= 1 && i <= calib.transforms().size()) {
        std::printf("  |t| %.4f from cam%zu", calib.transforms()[i - 1].topRightCorner<3, 1>().norm(), i - 1);
      }
      std::printf("\n");
    }
  }

  // The library ends a host whose configuration lacks a required key (and
  // the like), so a handle is created only when nothing would.
  if (!endsProcess(findings)) {
    DepthHandle handle(configPath);
    for (const std::string& e : handle.errors()) findings.push_back({true, false, "the library says: " + e});
    LumoRectifyInfo info{};
    if (handle.errors().empty() && KORV_LUMO_D_GetRectifyInfo(handle.get(), &info) == 0 && info.P1[0] != 0.0f) {
      std::printf("Rectified projections from the library (%s):\n",
                  s.restoreDepthDim ? "for the input size, restore_depth_dim is on" : "for the working size");
      printMatrix("P1", info.P1);
      printMatrix("P2", info.P2);
      const double baseline = -static_cast<double>(info.P2[3]) / info.P2[0];
      std::printf("Baseline            %.6f (-P2[3]/P2[0], calibration units)\n", baseline);
      // Depth is f·B/d below the search range; the library drops depth beyond 12 units.
      const double workingFocal = info.P1[0] * (s.restoreDepthDim ? s.scale : 1.0f);
      const double nearest = workingFocal * std::fabs(baseline) / s.searchRange();
      std::printf("Measurable depth    about %.2f to 12 units (f*B / %d disparities; farther depth is dropped)\n",
                  nearest, s.searchRange());
    } else if (handle.errors().empty()) {
      findings.push_back({true, false, "the library reports no rectification"});
    }
  }

  int blocking = 0;
  std::printf("Warnings:%s\n", findings.empty() ? " none" : "");
  for (const Finding& f : findings) {
    std::printf("  %s%s\n", f.blocking ? "[no depth] " : "", f.text.c_str());
    blocking += f.blocking;
  }
  if (blocking > 0) {
    std::fprintf(stderr, "lumetra-depth: '%s' cannot produce depth: %d problem%s, marked [no depth] above\n",
                 configPath.c_str(), blocking, blocking == 1 ? "" : "s");
    return 1;
  }
  return 0;
}

}  // namespace LumoTool
