#include "HandleConfig.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "yaml/YamlNode.h"
#include "yaml/YamlReaders.h"

namespace LumoPython {

namespace {

using KorvTech::YamlNode;

enum class Kind { Int, Float, Bool, Text };

struct Key {
  const char* name;
  Kind kind;
  bool required;  // absent: the library ends the process
};

// Every key, in the order the library reads them.
const Key kKeys[] = {
    {"enable_module", Kind::Int, true},        {"model_path", Kind::Text, true},
    {"calib_path", Kind::Text, false},         {"input_stereo_width", Kind::Int, true},
    {"input_stereo_height", Kind::Int, true},  {"stereo_img_scaling", Kind::Float, false},
    {"input_aux_cam_width", Kind::Int, false}, {"input_aux_cam_height", Kind::Int, false},
    {"aux_cam_scaling", Kind::Float, false},   {"thread_num", Kind::Int, true},
    {"async_mode", Kind::Int, false},          {"align_cam_id", Kind::Int, true},
    {"align_direction", Kind::Bool, true},     {"enable_filter", Kind::Bool, true},
    {"wls_filter", Kind::Bool, true},          {"depth_mode", Kind::Int, true},
    {"enable_voxel", Kind::Bool, true},        {"voxelSize", Kind::Float, true},
    {"minPoints", Kind::Float, true},          {"pointcloud_type", Kind::Int, true},
    {"pointcloud_ROI", Kind::Float, true},     {"skip_point", Kind::Int, true},
    {"farthest_dist", Kind::Float, true},      {"cloest_dist", Kind::Float, true},
    {"restore_depth_dim", Kind::Int, true},    {"debug_image", Kind::Int, true},
    {"debug_img_save_path", Kind::Text, true}};

// A present key through the library's typed reader; a value that is not a
// scalar reads as zero there (with a message the library prints itself), so it
// is not handed to the reader here, which would print the message twice.
template <typename T>
bool readKey(const YamlNode& root, const char* key, T* out) {
  const YamlNode node = root[key];
  if (node.type == YamlNode::Null) return false;
  if (node.type != YamlNode::Scalar) {
    *out = T{};
    return true;
  }
  try {
    KorvLumetra::CheckParseYaml(root, key, out);
  } catch (const std::exception&) {
    throw ConfigError(std::string(key) + ": '" + node.scalar + "' is not a number");
  }
  return true;
}

template <typename T>
void readOptional(const YamlNode& root, const char* key, T* out, T fallback) {
  if (!readKey(root, key, out)) *out = fallback;
}

// A length times the factor in single precision, truncated; a product no int
// holds (the library refuses such sizes) counts as 0.
int scaled(int length, float factor) {
  const float product = static_cast<float>(length) * factor;
  return product > -2147483648.0f && product < 2147483648.0f ? static_cast<int>(product) : 0;
}

ImageSize scaled(ImageSize size, float factor) { return {scaled(size.width, factor), scaled(size.height, factor)}; }

std::size_t largest(std::initializer_list<ImageSize> sizes) {
  std::size_t most = 0;
  for (const ImageSize& size : sizes) most = std::max(most, size.area());
  return most;
}

}  // namespace

std::size_t ImageSize::area() const {
  if (width <= 0 || height <= 0) return 0;
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

HandleConfig HandleConfig::read(const std::string& path) {
  const YamlNode root = YamlNode::LoadFile(path);
  std::string missing;
  for (const Key& key : kKeys) {
    if (key.required && root[key.name].type == YamlNode::Null) {
      missing += (missing.empty() ? "" : ", ") + std::string(key.name);
    }
  }
  if (!missing.empty()) throw ConfigError("missing required key(s): " + missing);
  // Numbers the library could not convert would throw out of it half-way.
  for (const Key& key : kKeys) {
    int32_t number = 0;
    float real = 0.0f;
    if (key.kind == Kind::Int) readKey(root, key.name, &number);
    if (key.kind == Kind::Float) readKey(root, key.name, &real);
  }

  HandleConfig config;
  int32_t enabled = 1, restore = 1, async = 1;
  readKey(root, "enable_module", &enabled);
  config.moduleEnabled = enabled != 0;
  const YamlNode calib = root["calib_path"];
  config.hasCalibration = calib.type == YamlNode::Scalar && !calib.scalar.empty();
  readKey(root, "input_stereo_width", &config.stereoInput.width);
  readKey(root, "input_stereo_height", &config.stereoInput.height);
  float stereoScale = 1.0f, auxScale = 1.0f;
  readOptional(root, "stereo_img_scaling", &stereoScale, 1.0f);
  readOptional(root, "input_aux_cam_width", &config.auxInput.width, 1920);
  readOptional(root, "input_aux_cam_height", &config.auxInput.height, 1080);
  readOptional(root, "aux_cam_scaling", &auxScale, 1.0f);
  readKey(root, "async_mode", &async);
  config.asyncMode = async != 0;
  readKey(root, "align_cam_id", &config.alignCamId);
  readKey(root, "align_direction", &config.alignDirection);
  readKey(root, "restore_depth_dim", &restore);
  config.restoreDepthDim = restore != 0;
  config.stereoWorking = scaled(config.stereoInput, stereoScale);
  config.auxWorking = scaled(config.auxInput, auxScale);
  return config;
}

ImageSize HandleConfig::input(int camera) const { return camera == 2 ? auxInput : stereoInput; }
ImageSize HandleConfig::working(int camera) const { return camera == 2 ? auxWorking : stereoWorking; }
ImageSize HandleConfig::target(int camera) const { return restoreDepthDim ? input(camera) : working(camera); }

// Depth leaves the matcher at the working size and is brought to the target
// size, unless its width already matches; registered into another camera it
// first takes that camera's input size.
std::size_t HandleConfig::depthCapacity() const {
  std::size_t most = largest({stereoWorking, target(0)});
  if (alignEnabled() && alignDirection && alignCamId >= 0 && alignCamId <= 2) {
    most = std::max(most, largest({input(alignCamId), target(alignCamId)}));
  }
  return most;
}

std::size_t HandleConfig::disparityCapacity() const { return stereoWorking.area(); }

// The aligned image is the matched frame (the colour camera's input size, or
// the whole stacked working frame for a stereo camera) or colour resampled
// into the depth grid, then brought to the target size; 1 or 3 channels.
std::size_t HandleConfig::alignedCapacity() const {
  if (!alignEnabled()) return 0;
  std::size_t most = largest({stereoWorking, target(0), {stereoWorking.width, 2 * stereoWorking.height}});
  if (alignCamId >= 0 && alignCamId <= 2) most = std::max(most, largest({input(alignCamId), target(alignCamId)}));
  return 3 * most;
}

std::size_t HandleConfig::rectifiedCapacity() const { return 3 * 2 * stereoWorking.area(); }

std::size_t HandleConfig::cloudCapacity() const { return stereoWorking.area(); }

}  // namespace LumoPython
