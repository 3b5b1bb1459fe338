// info: what a configuration says, what the library makes of it (rectified
// projections, baseline, the depth range the matcher can measure), and the
// settings that look wrong.
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "CalibrationFile.h"
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
    "Prints the settings of CONFIG (read here with a plain line reader), the\n"
    "calibration it names, and, when nothing would stop the library, creates a\n"
    "handle and prints the rectified projections P1 and P2 it reports and the\n"
    "baseline -P2[3]/P2[0]. Then lists settings that look wrong: sizes that do not\n"
    "match the calibration's aspect, scale factors that leave nothing to match,\n"
    "missing files or keys, no matcher threads, a search range beyond the width.\n"
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

  std::unique_ptr<CalibrationFile> calib;
  std::string calibError;
  if (!s.calibPath.empty()) {
    try {
      calib = std::make_unique<CalibrationFile>(CalibrationFile::load(s.calibPath));
    } catch (const ToolError& e) {
      calibError = e.what();
    }
  }
  if (calib) {
    std::printf("Calibration %s: %zu camera%s\n", s.calibPath.c_str(), calib->cameras().size(),
                calib->cameras().size() == 1 ? "" : "s");
    for (const CalibCamera& cam : calib->cameras()) {
      std::printf("  cam%d  %-12s %dx%d", cam.index, cam.model.c_str(), cam.width(), cam.height());
      if (cam.intrinsics.size() == 4) {
        std::printf("  fx %.2f fy %.2f cx %.2f cy %.2f", cam.intrinsics[0], cam.intrinsics[1], cam.intrinsics[2],
                    cam.intrinsics[3]);
      }
      if (cam.transform.size() == 4 && cam.transform[0].size() == 4 && cam.transform[1].size() == 4 &&
          cam.transform[2].size() == 4) {
        const double tx = cam.transform[0][3], ty = cam.transform[1][3], tz = cam.transform[2][3];
        std::printf("  |t| %.4f from cam%d", std::sqrt(tx * tx + ty * ty + tz * tz), cam.index - 1);
      }
      std::printf("\n");
    }
  }

  std::vector<Finding> findings = checkConfiguration(config, calib.get(), calibError);
  // The library ends a host whose configuration lacks a required key (and
  // the like), so a handle is created only when nothing blocking was found.
  if (firstBlocking(findings).empty()) {
    DepthHandle handle(configPath);
    for (const std::string& e : handle.errors()) findings.push_back({true, "the library says: " + e});
    LumoRectifyInfo info{};
    if (KORV_LUMO_D_GetRectifyInfo(handle.get(), &info) == 0 && info.P1[0] != 0.0f) {
      std::printf("Rectified projections from the library (%s):\n",
                  s.restoreDepthDim ? "for the input size, restore_depth_dim is on" : "for the working size");
      printMatrix("P1", info.P1);
      printMatrix("P2", info.P2);
      const double baseline = -static_cast<double>(info.P2[3]) / info.P2[0];
      std::printf("Baseline            %.6f (-P2[3]/P2[0], calibration units)\n", baseline);
      // Depth is f·B/d with d below the search range; the library drops depth beyond 12 units.
      const double workingFocal = info.P1[0] * (s.restoreDepthDim ? s.scale : 1.0f);
      const double nearest = workingFocal * std::fabs(baseline) / s.searchRange();
      std::printf("Measurable depth    about %.2f to 12 units (f*B / %d disparities; farther depth is dropped)\n",
                  nearest, s.searchRange());
    } else {
      findings.push_back({true, "the library reports no rectification"});
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
