#include "ConfigFile.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <system_error>

#include "ToolError.h"

namespace LumoTool {

const std::vector<ConfigKey>& configKeys() {
  static const std::vector<ConfigKey> keys = {
      {"enable_module", KeyType::Integer, true, "", "0 makes every feed fail"},
      {"model_path", KeyType::Text, true, "", "kept for the engine; not used by the matcher"},
      {"calib_path", KeyType::Text, false, "", "calibration file, relative to this file"},
      {"input_stereo_width", KeyType::Integer, true, "", "width of one stereo view, pixels"},
      {"input_stereo_height", KeyType::Integer, true, "", "height of one stereo view, pixels"},
      {"stereo_img_scaling", KeyType::Real, false, "1.0", "input to working size factor"},
      {"input_aux_cam_width", KeyType::Integer, false, "1920", "colour camera width, pixels"},
      {"input_aux_cam_height", KeyType::Integer, false, "1080", "colour camera height, pixels"},
      {"aux_cam_scaling", KeyType::Real, false, "1.0", "colour input to working size factor"},
      {"thread_num", KeyType::Integer, true, "", "matcher threads"},
      {"async_mode", KeyType::Integer, false, "(pipeline default)", "0: a feed waits for its depth"},
      {"align_cam_id", KeyType::Integer, true, "", "camera depth is aligned with; -1 off"},
      {"align_direction", KeyType::Bool, true, "", "true: depth into the colour camera"},
      {"enable_filter", KeyType::Bool, true, "", "spatial and temporal depth filters"},
      {"wls_filter", KeyType::Bool, true, "", "weighted least squares disparity refinement"},
      {"depth_mode", KeyType::Integer, true, "", "engine depth mode"},
      {"enable_voxel", KeyType::Bool, true, "", "voxel filter of the point cloud"},
      {"voxelSize", KeyType::Real, true, "", "voxel edge length"},
      {"minPoints", KeyType::Real, true, "", "points a voxel needs to be kept"},
      {"pointcloud_type", KeyType::Integer, true, "", "0 rectified, 1 camera, 2 world frame"},
      {"pointcloud_ROI", KeyType::Real, true, "", "central share of the image used for points"},
      {"skip_point", KeyType::Integer, true, "", "pixels skipped between cloud samples"},
      {"farthest_dist", KeyType::Real, true, "", "far limit of cloud points"},
      {"cloest_dist", KeyType::Real, true, "", "near limit of cloud points"},
      {"restore_depth_dim", KeyType::Integer, true, "", "hand out depth at the input size"},
      {"debug_image", KeyType::Integer, true, "", "dump debug files"},
      {"debug_img_save_path", KeyType::Text, true, "", "directory of the debug files"},
  };
  return keys;
}

namespace {

std::string trim(const std::string& s) {
  const std::size_t first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

// Cuts a "#" comment that stands outside quotes.
std::string stripComment(const std::string& line) {
  bool single = false, dbl = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '\'' && !dbl) single = !single;
    else if (c == '"' && !single) dbl = !dbl;
    else if (c == '#' && !single && !dbl) return line.substr(0, i);
  }
  return line;
}

std::string unquote(const std::string& value) {
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
    return value.substr(1, value.size() - 2);
  }
  return value;
}

// The library converts with the standard stoi/stof, which take the longest
// numeric prefix and throw when there is none.
bool parseInteger(const std::string& text, int& out) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(begin, &end, 10);
  if (end == begin || errno == ERANGE || value < std::numeric_limits<int>::min() ||
      value > std::numeric_limits<int>::max()) {
    return false;
  }
  out = static_cast<int>(value);
  return true;
}

bool parseReal(const std::string& text, float& out) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const float value = std::strtof(begin, &end);
  if (end == begin || errno == ERANGE) return false;
  out = value;
  return true;
}

bool parseBool(const std::string& text) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower == "true" || lower == "yes" || lower == "on" || lower == "1";
}

}  // namespace

ConfigFile ConfigFile::load(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw cannotRead(path, std::system_category().message(errno ? errno : ENOENT));
  ConfigFile config;
  config.path_ = path;
  std::string line;
  while (std::getline(in, line)) {
    // The configuration is flat: indented lines belong to nested values the library does not read.
    if (line.empty() || line[0] == ' ' || line[0] == '\t' || line[0] == '%' || line[0] == '-') continue;
    const std::string content = stripComment(line);
    const std::size_t colon = content.find(':');
    if (colon == std::string::npos) continue;
    const std::string key = trim(content.substr(0, colon));
    const std::string value = trim(content.substr(colon + 1));
    if (value.empty()) {
      config.values_.erase(key);  // a null value is an absent key
    } else {
      config.values_[key] = unquote(value);
    }
  }
  if (in.bad()) throw cannotRead(path, "read error");
  return config;
}

bool ConfigFile::has(const std::string& key) const { return values_.count(key) != 0; }

std::string ConfigFile::text(const std::string& key, const std::string& fallback) const {
  const auto it = values_.find(key);
  return it == values_.end() ? fallback : it->second;
}

bool ConfigFile::convertible(const std::string& key, KeyType type) const {
  if (!has(key)) return true;
  int i = 0;
  float f = 0.0f;
  switch (type) {
    case KeyType::Integer: return parseInteger(text(key), i);
    case KeyType::Real: return parseReal(text(key), f);
    default: return true;
  }
}

int ConfigFile::integer(const std::string& key, int fallback) const {
  int value = fallback;
  return has(key) && parseInteger(text(key), value) ? value : fallback;
}

float ConfigFile::real(const std::string& key, float fallback) const {
  float value = fallback;
  return has(key) && parseReal(text(key), value) ? value : fallback;
}

bool ConfigFile::flag(const std::string& key, bool fallback) const {
  return has(key) ? parseBool(text(key)) : fallback;
}

std::string ConfigFile::resolve(const std::string& path) const {
  if (!path.empty() && path[0] == '/') return path;
  const std::size_t slash = path_.rfind('/');
  return (slash == std::string::npos ? std::string("./") : path_.substr(0, slash + 1)) + path;
}

Settings Settings::from(const ConfigFile& config) {
  Settings s;
  s.width = config.integer("input_stereo_width", 0);
  s.height = config.integer("input_stereo_height", 0);
  s.scale = config.real("stereo_img_scaling", 1.0f);
  // Single precision, truncated, as the library sizes its working images.
  s.workingWidth = static_cast<int>(static_cast<float>(s.width) * s.scale);
  s.workingHeight = static_cast<int>(static_cast<float>(s.height) * s.scale);
  s.auxWidth = config.integer("input_aux_cam_width", 1920);
  s.auxHeight = config.integer("input_aux_cam_height", 1080);
  s.auxScale = config.real("aux_cam_scaling", 1.0f);
  s.threads = config.integer("thread_num", 0);
  s.asyncMode = config.integer("async_mode", 0);
  s.alignCamera = config.integer("align_cam_id", -1);
  s.alignDepthToColour = config.flag("align_direction", false);
  s.pointcloudType = config.integer("pointcloud_type", 0);
  s.restoreDepthDim = config.integer("restore_depth_dim", 0) != 0;
  s.enabled = config.integer("enable_module", 0) != 0;
  const std::string calib = config.text("calib_path");
  s.calibPath = calib.empty() ? "" : config.resolve(calib);
  return s;
}

int searchRangeForWidth(int workingWidth) {
  // The matcher's own steps, in float: width / 10, no rounding to 16.
  float product = static_cast<float>(workingWidth) / 10.0f;
  product = product * 0.0625f * 16.0f;
  const int n = static_cast<int>(product);
  return n > 128 ? 128 : (n < 16 ? 16 : n);
}

int Settings::searchRange() const { return searchRangeForWidth(workingWidth); }

}  // namespace LumoTool
