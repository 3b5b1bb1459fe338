// The calibration-file import on fuzzed files, through the configuration.
// Documents that would end the process by design (a missing required key,
// unequal scale factors, an unknown depth-camera model) are set aside first;
// conversion and OpenCV errors are exceptions that reach the caller.
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include "pipeline/StereoDepth.h"
#include "yaml/YamlNode.h"

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 40;

bool present(const KorvTech::YamlNode& map, const char* key) {
  return map.type == KorvTech::YamlNode::Map && map[key].type != KorvTech::YamlNode::Null;
}

// An integer as the reader would take it, or false where it would throw.
bool readInt(const KorvTech::YamlNode& node, long* out) {
  if (node.type != KorvTech::YamlNode::Scalar) {
    *out = 0;
    return true;
  }
  try {
    *out = std::stoi(node.scalar);
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

// Whether the import would run without ending the process.
bool importable(const KorvTech::YamlNode& root) {
  for (int i = 0; i < 3; ++i) {
    const KorvTech::YamlNode cam = root["cam" + std::to_string(i)];
    if (cam.type == KorvTech::YamlNode::Null) return true;
    for (const char* key : {"intrinsics", "distortion_coeffs", "distortion_model", "resolution"}) {
      if (!present(cam, key)) return false;
    }
    // As the importer reads it: a list of integers, missing entries 0.
    const KorvTech::YamlNode resolution = cam["resolution"];
    long width = 0, height = 0;
    if (resolution.type == KorvTech::YamlNode::Sequence) {
      if (!resolution.seq.empty() && !readInt(resolution.seq[0], &width)) return true;  // throws
      if (resolution.seq.size() > 1 && !readInt(resolution.seq[1], &height)) return true;
    }
    const int inputWidth = i == 2 ? 1920 : kWidth, inputHeight = i == 2 ? 1080 : kHeight;
    const float sw = static_cast<float>(inputWidth) / static_cast<float>(width);
    const float sh = static_cast<float>(inputHeight) / static_cast<float>(height);
    if (std::fabs(sw - sh) > 1.1920929e-7f) return false;
    if (i == 0) {
      const KorvTech::YamlNode model = cam["distortion_model"];
      if (model.type != KorvTech::YamlNode::Scalar) return false;
      if (model.scalar != "equidistant" && model.scalar != "radtan" && model.scalar != "cvbasic") return false;
    }
  }
  return true;
}

std::string scratchDir() {
  char pattern[] = "/tmp/lumo_fuzz_XXXXXX";
  const char* made = mkdtemp(pattern);
  return made != nullptr ? made : "/tmp";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The import prints matrices and error lines; keep the fuzzer's output readable.
  return std::freopen("/dev/null", "w", stdout) != nullptr ? 0 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  KorvTech::YamlNode root;
  root.type = KorvTech::YamlNode::Map;
  root.parse(text, "fuzz");
  if (!importable(root)) return 0;

  static const std::string dir = scratchDir();
  FILE* calib = std::fopen((dir + "/calib.yaml").c_str(), "wb");
  if (calib == nullptr) return 0;
  std::fwrite(text.data(), 1, text.size(), calib);
  std::fclose(calib);
  static const bool configWritten = [] {
    FILE* config = std::fopen((dir + "/config.yaml").c_str(), "w");
    if (config == nullptr) return false;
    std::fprintf(config,
                 "enable_module: 1\nmodel_path: m\ncalib_path: calib.yaml\ninput_stereo_width: %d\n"
                 "input_stereo_height: %d\nthread_num: 0\nalign_cam_id: -1\nalign_direction: false\n"
                 "enable_filter: false\nwls_filter: false\ndepth_mode: 0\nenable_voxel: false\nvoxelSize: 0.01\n"
                 "minPoints: 1\npointcloud_type: 0\npointcloud_ROI: 1\nskip_point: 0\nfarthest_dist: 10\n"
                 "cloest_dist: 0.1\nrestore_depth_dim: 1\ndebug_image: 0\ndebug_img_save_path: /tmp\n",
                 kWidth, kHeight);
    std::fclose(config);
    return true;
  }();
  if (!configWritten) return 0;

  KorvLumetra::StereoDepth pipeline;
  try {
    pipeline.initFromYaml(dir + "/config.yaml");
  } catch (const std::exception&) {  // conversion errors, OpenCV's checks
  }
  return 0;
}
