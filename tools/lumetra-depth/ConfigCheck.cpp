#include "ConfigCheck.h"

#include <sys/stat.h>

#include <limits>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "engine/StereoCVEngine.h"
#include "yaml/YamlReaders.h"

namespace LumoTool {

namespace {

using KorvLumetra::ImportStatus;
using KorvLumetra::StereoCalibration;
using KorvTech::YamlNode;

// Bounds the library sets on scale factors.
constexpr float kMaxScaling = 16.0f;
// Depth beyond this many calibration units is dropped by the matcher.
constexpr double kFarthestDepth = 12.0;

std::string size(int width, int height) { return std::to_string(width) + "x" + std::to_string(height); }

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.4g", value);
  return text;
}

bool isDirectory(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Letters to change, add or drop to turn one word into the other.
std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// Keeps the library's report of an import instead of printing it.
class KeptReport : public KorvLumetra::CalibrationReport {
 public:
  void print(const std::string&) override {}
  void error(const char*, const std::string& message) override { lines.push_back(message); }
  void warn(const std::string& text) override { lines.push_back(text.substr(0, text.find('\n'))); }
  std::vector<std::string> lines;
};

// The configuration's camera sizes, derived as the library derives them.
StereoCalibration::Setup setupOf(const Settings& s, bool restoreDepthDim) {
  const auto side = [](int length, float scale) {
    const float product = static_cast<float>(length) * scale;
    return product > 0.0f && product < 2147483648.0f ? static_cast<int>(product) : 0;
  };
  StereoCalibration::Setup setup;
  const KorvLumetra::ImageSize inputs[3] = {{s.width, s.height}, {s.width, s.height}, {s.auxWidth, s.auxHeight}};
  const float scales[3] = {s.scale, s.scale, s.auxScale};
  for (int i = 0; i < 3; ++i) {
    const KorvLumetra::ImageSize working{side(inputs[i].width, scales[i]), side(inputs[i].height, scales[i])};
    setup.inputSizes.push_back(inputs[i]);
    setup.workingSizes.push_back(working);
    setup.scaleRatios.push_back(static_cast<float>(working.width) / static_cast<float>(inputs[i].width));
  }
  setup.restoreDepthDim = restoreDepthDim;
  return setup;
}

// Which camera's resolution does not share the configured size's aspect, in words.
std::string aspectProblem(const Settings& s, const std::string& calibPath) {
  const YamlNode root = YamlNode::LoadFile(calibPath);
  for (int i = 0; i < 3; ++i) {
    const YamlNode resolution = root["cam" + std::to_string(i)]["resolution"];
    if (resolution.type != YamlNode::Sequence || resolution.seq.size() != 2) continue;
    int width = 0, height = 0;
    try {
      width = std::stoi(resolution.seq[0].scalar), height = std::stoi(resolution.seq[1].scalar);
    } catch (const std::logic_error&) {
      continue;
    }
    const int w = i < 2 ? s.width : s.auxWidth, h = i < 2 ? s.height : s.auxHeight;
    const float sw = static_cast<float>(w) / static_cast<float>(width);
    const float sh = static_cast<float>(h) / static_cast<float>(height);
    if (std::fabs(sw - sh) > std::numeric_limits<float>::epsilon()) {
      return std::string(i < 2 ? "input size " : "colour camera size ") + size(w, h) +
             " does not have the aspect of cam" + std::to_string(i) + "'s resolution " + size(width, height);
    }
  }
  return std::string();
}

}  // namespace

std::vector<Finding> checkConfiguration(const ConfigFile& config, CalibrationPreview* preview) {
  std::vector<Finding> out;
  const auto ends = [&](const std::string& text) { out.push_back({true, true, text}); };
  const auto block = [&](const std::string& text) { out.push_back({true, false, text}); };
  const auto warn = [&](const std::string& text) { out.push_back({false, false, text}); };

  for (const ConfigKey& key : configKeys()) {
    if (key.required && !config.has(key.name)) {
      ends(std::string("required key '") + key.name + "' is missing (the library ends the process)");
    } else if (!config.convertible(key.name, key.type)) {
      block(std::string(key.name) + ": '" + config.text(key.name) + "' is not a number (the library refuses it)");
    } else if (key.type == KeyType::Bool && config.has(key.name)) {
      std::string word = config.text(key.name);
      std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::tolower(c); });
      if (word != "true" && word != "yes" && word != "on" && word != "1" && word != "false" && word != "no" &&
          word != "off" && word != "0") {
        warn(std::string(key.name) + ": '" + config.text(key.name) +
             "' reads as false (only true, yes, on and 1 read as true)");
      }
    }
  }
  for (const std::string& name : config.keys()) {
    const auto& keys = configKeys();
    if (std::any_of(keys.begin(), keys.end(), [&](const ConfigKey& k) { return name == k.name; })) continue;
    std::string text = "unknown key '" + name + "' is ignored";
    for (const ConfigKey& k : keys) {
      if (editDistance(name, k.name) <= 2) text += std::string(" (did you mean '") + k.name + "'?)";
    }
    warn(text);
  }
  const Settings s = Settings::from(config);

  if (!s.enabled) block("enable_module is 0: every feed is refused");
  if (s.threads == 0) block("thread_num 0 creates no matcher: no depth");
  if (!config.has("async_mode")) warn("async_mode is absent: the pipeline's own default (asynchronous) applies");
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

  // The library refuses sizes and scales it cannot use before it reads the
  // calibration; the import is tried only where it would be.
  const bool usable = s.width > 0 && s.height > 0 && s.auxWidth >= 0 && s.auxHeight >= 0 && s.scale > 0.0f &&
                      s.scale <= kMaxScaling && s.auxScale > 0.0f && s.auxScale <= kMaxScaling;
  if (!usable || endsProcess(out)) return out;
  CalibrationPreview local;
  CalibrationPreview& p = preview != nullptr ? *preview : local;
  KeptReport report;
  const StereoCalibration::Setup setup = setupOf(s, s.restoreDepthDim);
  const ImportStatus imported = p.calibration.importFile(s.calibPath, setup, report);
  if (imported.outcome == ImportStatus::kFatal) {
    const std::string why = aspectProblem(s, s.calibPath);
    const std::string said = report.lines.empty() ? std::string("a fatal fault") : report.lines.back();
    ends("calibration: " + (why.empty() ? said : why) + " (the library ends the process)");
    return out;
  }
  if (!imported.isOk()) return out;  // the library says why when the handle is made
  p.imported = true;
  const YamlNode root = YamlNode::LoadFile(s.calibPath);
  for (std::size_t i = 0; i < p.calibration.cameraCount(); ++i) {
    p.models.push_back(root["cam" + std::to_string(i)]["distortion_model"].scalar);
  }
  // Depth is f·B/d below the search range, and dropped beyond 12 units: a
  // calibration in millimetres measures nothing.
  if (p.calibration.rectify(setup, report).isOk()) {
    p.nearestDepth = -p.calibration.P2().at<double>(0, 3) / s.searchRange();
    if (p.nearestDepth >= kFarthestDepth) {
      block("the measurable depth range is empty: the nearest depth the matcher reaches, " + number(p.nearestDepth) +
            ", is beyond the 12 units the library keeps (is the calibration in millimetres instead of metres?)");
    } else if (p.nearestDepth * 2.0 > kFarthestDepth) {
      warn("the measurable depth range is tiny: " + number(p.nearestDepth) +
           " to 12 units (is the calibration in another unit than metres?)");
    }
  }
  const std::size_t aligned = static_cast<std::size_t>(s.alignCamera);
  if (s.aligned() && s.alignCamera >= 0 && aligned < p.calibration.cameraCount() &&
      p.calibration.models()[aligned] == KorvLumetra::kCamModelUnknown) {
    ends("the aligned camera's distortion_model '" + p.models[aligned] +
         "' is unknown (the library ends the process at the first depth)");
  }
  return out;
}

std::string firstBlocking(const std::vector<Finding>& findings) {
  for (const Finding& f : findings) {
    if (f.blocking) return f.text;
  }
  return "";
}

bool endsProcess(const std::vector<Finding>& findings) {
  return std::any_of(findings.begin(), findings.end(), [](const Finding& f) { return f.endsProcess; });
}

}  // namespace LumoTool
