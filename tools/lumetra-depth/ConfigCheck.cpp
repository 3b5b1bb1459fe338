#include "ConfigCheck.h"

#include <cmath>
#include <cstdio>
#include <sys/stat.h>

namespace LumoTool {

namespace {

// The library compares calibration scale factors to single-precision epsilon.
constexpr float kScaleTolerance = 1.1920929e-7f;
// Bytes of the library's depth result buffer.
constexpr double kDepthCapacity = 32768000.0;

std::string size(int width, int height) { return std::to_string(width) + "x" + std::to_string(height); }

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", value);
  return text;
}

bool isDirectory(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

std::vector<Finding> checkConfiguration(const ConfigFile& config, const CalibrationFile* calib,
                                        const std::string& calibError) {
  std::vector<Finding> out;
  const auto block = [&](const std::string& text) { out.push_back({true, text}); };
  const auto warn = [&](const std::string& text) { out.push_back({false, text}); };

  for (const ConfigKey& key : configKeys()) {
    if (key.required && !config.has(key.name)) {
      block(std::string("required key '") + key.name + "' is missing (the library ends the process)");
    } else if (!config.convertible(key.name, key.type)) {
      block(std::string(key.name) + ": '" + config.text(key.name) + "' is not a number (the library throws)");
    }
  }
  const Settings s = Settings::from(config);

  if (!s.enabled) block("enable_module is 0: every feed is refused");
  if (s.width <= 0 || s.height <= 0) {
    block("input size " + size(s.width, s.height) + " is empty");
  } else if (s.workingWidth <= 0 || s.workingHeight <= 0) {
    block("stereo_img_scaling " + number(s.scale) + " makes the working size " +
          size(s.workingWidth, s.workingHeight));
  } else {
    if (s.searchRange() >= s.workingWidth) {
      block("the matcher searches " + std::to_string(s.searchRange()) +
            " disparities, not less than the working width " + std::to_string(s.workingWidth));
    }
    if (4.0 * s.workingWidth * s.workingHeight > kDepthCapacity) {
      block("working size " + size(s.workingWidth, s.workingHeight) + " exceeds the library's depth buffer");
    }
  }
  if (s.threads < 1) block("thread_num " + std::to_string(s.threads) + " creates no matcher: no depth");
  if (!config.has("async_mode")) warn("async_mode is absent: the pipeline's own default applies");
  if (s.aligned() && (s.auxWidth <= 0 || s.auxHeight <= 0 ||
                      static_cast<int>(static_cast<float>(s.auxWidth) * s.auxScale) <= 0)) {
    block("alignment is on but the colour camera's working size is empty");
  }

  const float roi = config.real("pointcloud_ROI", 1.0f);
  if (!(roi > 0.0f && roi <= 1.0f)) warn("pointcloud_ROI " + number(roi) + " is outside (0, 1]");
  if (config.integer("skip_point", 0) < 0) warn("skip_point is negative");
  if (config.flag("enable_voxel", false) && !(config.real("voxelSize", 0.0f) > 0.0f)) {
    warn("enable_voxel is on with voxelSize " + number(config.real("voxelSize", 0.0f)));
  }
  if (config.real("cloest_dist", 0.0f) > config.real("farthest_dist", 0.0f)) {
    warn("cloest_dist is beyond farthest_dist: every point cloud is empty");
  }
  if (s.pointcloudType < 0 || s.pointcloudType > 2) warn("pointcloud_type should be 0, 1 or 2");
  if (config.integer("debug_image", 0) != 0) {
    warn("debug_image is on: files for every frame, and synchronous feeds may wait up to 200 s");
    const std::string dir = config.text("debug_img_save_path");
    if (!isDirectory(dir)) warn("debug_img_save_path '" + dir + "' is not a directory");
    // Unlike calib_path it is used as written, so a relative one follows the host's working directory.
    if (!dir.empty() && dir[0] != '/') {
      warn("debug_img_save_path is taken from the working directory, not from the file's");
    }
  }

  if (s.calibPath.empty()) {
    block("calib_path is empty: without a tracker to bind there is no calibration");
    return out;
  }
  if (calib == nullptr) {
    block("calibration: " + calibError);
    return out;
  }
  const std::vector<CalibCamera>& cams = calib->cameras();
  if (cams.empty()) {
    block("calibration " + s.calibPath + " has no cam0");
    return out;
  }
  if (cams.size() < 2 || cams[1].transform.size() != 4) {
    block("calibration " + s.calibPath + " has no cam1 with T_cn_cnm1: no rectification");
  }
  // The library compares each camera's calibration resolution with the
  // configured input size: the left and right cameras with the stereo size,
  // a third with the colour camera's.
  for (const CalibCamera& cam : cams) {
    for (const std::string& key : cam.missingKeys()) {
      block("calibration cam" + std::to_string(cam.index) + " lacks '" + key + "' (the library ends the process)");
    }
    if (cam.index > 2 || cam.width() <= 0 || cam.height() <= 0) continue;
    const int w = cam.index < 2 ? s.width : s.auxWidth;
    const int h = cam.index < 2 ? s.height : s.auxHeight;
    const float sw = static_cast<float>(w) / static_cast<float>(cam.width());
    const float sh = static_cast<float>(h) / static_cast<float>(cam.height());
    const std::string what = cam.index < 2 ? "input size " : "colour camera size ";
    if (std::fabs(sw - sh) > kScaleTolerance) {
      block(what + size(w, h) + " does not have the aspect of cam" + std::to_string(cam.index) + "'s resolution " +
            size(cam.width(), cam.height()) + " (the library ends the process)");
    } else if (w != cam.width()) {
      warn(what + size(w, h) + " is cam" + std::to_string(cam.index) + "'s resolution " +
           size(cam.width(), cam.height()) + " scaled by " + number(sw));
    }
  }
  if (!cams[0].knownModel()) {
    block("cam0's distortion_model '" + cams[0].model + "' is unknown (the library ends the process)");
  }
  if (s.aligned()) {
    if (s.alignCamera < 0 || s.alignCamera >= static_cast<int>(cams.size()) || s.alignCamera > 2) {
      block("align_cam_id " + std::to_string(s.alignCamera) + " names no camera of the calibration");
    } else if (!cams[static_cast<std::size_t>(s.alignCamera)].knownModel()) {
      block("the aligned camera's distortion_model is unknown (the library ends the process)");
    }
  }
  return out;
}

std::string firstBlocking(const std::vector<Finding>& findings) {
  for (const Finding& f : findings) {
    if (f.blocking) return f.text;
  }
  return "";
}

}  // namespace LumoTool
