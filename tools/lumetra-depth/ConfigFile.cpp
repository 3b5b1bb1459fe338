#include "ConfigFile.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "ToolError.h"
#include "engine/StereoCVEngine.h"
#include "yaml/YamlReaders.h"

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

using KorvTech::YamlNode;

std::string shown(const YamlNode& node) {
  if (node.type == YamlNode::Scalar) return node.scalar;
  if (node.type != YamlNode::Sequence) return "";
  std::string text = "[";
  for (const YamlNode& element : node.seq) text += (text.size() > 1 ? ", " : "") + shown(element);
  return text + "]";
}

}  // namespace

ConfigFile ConfigFile::load(const std::string& path) {
  const std::string reason = YamlNode::UnreadableReason(path);
  if (!reason.empty()) throw cannotRead(path, reason);
  ConfigFile config;
  config.path_ = path;
  config.root_ = YamlNode::LoadFile(path);
  return config;
}

bool ConfigFile::has(const std::string& key) const { return KorvLumetra::HasYamlKey(root_, key); }

std::string ConfigFile::text(const std::string& key, const std::string& fallback) const {
  return has(key) ? shown(root_[key]) : fallback;
}

bool ConfigFile::convertible(const std::string& key, KeyType type) const {
  const YamlNode value = root_[key];
  if (!has(key) || value.type != YamlNode::Scalar) return true;
  try {
    if (type == KeyType::Integer) (void)std::stoi(value.scalar);
    if (type == KeyType::Real) (void)std::stof(value.scalar);
  } catch (const std::logic_error&) {  // the library's readers throw the same
    return false;
  }
  return true;
}

int ConfigFile::integer(const std::string& key, int fallback) const {
  if (!has(key)) return fallback;
  if (!convertible(key, KeyType::Integer)) return fallback;
  const YamlNode value = root_[key];
  return value.type == YamlNode::Scalar ? std::stoi(value.scalar) : 0;
}

float ConfigFile::real(const std::string& key, float fallback) const {
  if (!has(key)) return fallback;
  if (!convertible(key, KeyType::Real)) return fallback;
  const YamlNode value = root_[key];
  return value.type == YamlNode::Scalar ? std::stof(value.scalar) : 0.0f;
}

bool ConfigFile::flag(const std::string& key, bool fallback) const {
  if (!has(key)) return fallback;
  const YamlNode value = root_[key];
  std::string lower = value.type == YamlNode::Scalar ? value.scalar : "";
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower == "true" || lower == "yes" || lower == "on" || lower == "1";
}

std::vector<std::string> ConfigFile::keys() const {
  std::vector<std::string> names;
  for (const auto& entry : root_.map) names.push_back(entry.first);
  return names;
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
  // Single precision, truncated, as the library sizes its working images (0 for a factor it refuses).
  const auto side = [&](int length) {
    const float product = static_cast<float>(length) * s.scale;
    return product > 0.0f && product < 2147483648.0f ? static_cast<int>(product) : 0;
  };
  s.workingWidth = side(s.width);
  s.workingHeight = side(s.height);
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

int searchRangeForWidth(int workingWidth) { return KorvLumetra::StereoCVEngine::numberOfDisparities(workingWidth, 1.0f); }

int Settings::searchRange() const { return searchRangeForWidth(workingWidth); }

}  // namespace LumoTool
