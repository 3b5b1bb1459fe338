// StereoDepth: reading the configuration file.
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "api/ErrorLog.h"
#include "engine/StereoEngineFactory.h"
#include "pipeline/StereoDepth.h"
#include "yaml/YamlNode.h"
#include "yaml/YamlReaders.h"

namespace KorvLumetra {

namespace {

bool fileExists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

// Relative paths in the configuration are taken against its own directory.
std::string resolveAgainst(const std::string& configPath, const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  const std::size_t slash = configPath.rfind('/');
  const std::string directory = slash == std::string::npos ? "./" : configPath.substr(0, slash + 1);
  return directory + path;
}

// Bytes a size needs at `bytesPerPixel`, in 64 bits so that no product wraps;
// negative sizes count as too large.
int64_t bytesFor(int width, int height, int bytesPerPixel) {
  if (width < 0 || height < 0) return INT64_MAX;
  return static_cast<int64_t>(width) * height * bytesPerPixel;
}

}  // namespace

// The buffers have fixed capacities: refuse sizes that would overrun them.
bool StereoDepth::sizesFitBuffers() {
  const ImageSize& stereoInput = inputSizes_[inputSizes_.size() - 3];
  const ImageSize& stereoWorking = scaledSizes_[scaledSizes_.size() - 3];
  const ImageSize& auxInput = inputSizes_[inputSizes_.size() - 1];
  const int64_t stereoLimit = static_cast<int64_t>(kStereoBufferBytes);
  if (bytesFor(stereoWorking.width, 2 * stereoWorking.height, 3) > stereoLimit) {
    logErrorf("initFromYaml",
              "input_stereo_width x input_stereo_height at stereo_img_scaling gives %dx%d per view, "
              "over the limit of %lld bytes for both views in 3 channels\n",
              stereoWorking.width, stereoWorking.height, static_cast<long long>(stereoLimit));
    return false;
  }
  if (bytesFor(stereoInput.width, stereoInput.height, 4) > static_cast<int64_t>(kOutputBufferBytes) ||
      bytesFor(stereoInput.width, stereoInput.height, 3) > static_cast<int64_t>(kColourBufferBytes)) {
    logErrorf("initFromYaml",
              "input_stereo_width x input_stereo_height %dx%d is over the limit of %lld pixels\n",
              stereoInput.width, stereoInput.height, static_cast<long long>(kColourBufferBytes / 3));
    return false;
  }
  if (bytesFor(auxInput.width, auxInput.height, 3) > static_cast<int64_t>(kRingSlotBytes)) {
    logErrorf("initFromYaml",
              "input_aux_cam_width x input_aux_cam_height %dx%d is over the limit of %lld pixels\n",
              auxInput.width, auxInput.height, static_cast<long long>(kRingSlotBytes / 3));
    return false;
  }
  // Depth registered into another camera is copied back into the depth record.
  const std::size_t aligned = static_cast<std::size_t>(alignCamId_);
  if (alignCamId_ >= 0 && alignDirectionSetting_ && aligned < 3) {
    const ImageSize& target = inputSizes_[inputSizes_.size() - 3 + aligned];
    if (bytesFor(target.width, target.height, 4) > static_cast<int64_t>(kDepthBufferBytes)) {
      logErrorf("initFromYaml",
                "align_cam_id %d with align_direction true needs depth of %dx%d, over the limit of %lld pixels\n",
                alignCamId_, target.width, target.height, static_cast<long long>(kDepthBufferBytes / 4));
      return false;
    }
  }
  return true;
}

int StereoDepth::initFromYaml(const std::string& path) {
  using KorvTech::YamlNode;
  if (!fileExists(path)) {
    logErrorf("initFromYaml", "file not exits: %s\n", path.c_str());
    return 1;
  }
  const YamlNode root = YamlNode::LoadFile(path);

  CheckParseYaml(root, "enable_module", &moduleEnabled_);
  CheckParseYaml(root, "model_path", &modelPath_);
  const YamlNode calib = root["calib_path"];
  if (calib.type == YamlNode::Scalar) {
    calibPath_ = calib.scalar;
  } else {
    if (calib.type != YamlNode::Null) std::fputs("[YamlNode] Expected scalar for string conversion\n", stderr);
    calibPath_.clear();
  }
  CheckParseYaml(root, "input_stereo_width", &inputStereoWidth_);
  CheckParseYaml(root, "input_stereo_height", &inputStereoHeight_);
  const float unitScale = 1.0f;
  const int defaultAuxWidth = 1920;
  const int defaultAuxHeight = 1080;
  ParseYamlOrDefault(root, "stereo_img_scaling", &stereoImgScaling_, &unitScale);
  ParseYamlOrDefault(root, "input_aux_cam_width", &inputAuxCamWidth_, &defaultAuxWidth);
  ParseYamlOrDefault(root, "input_aux_cam_height", &inputAuxCamHeight_, &defaultAuxHeight);
  ParseYamlOrDefault(root, "aux_cam_scaling", &auxCamScaling_, &unitScale);
  CheckParseYaml(root, "thread_num", &threadNum_);
  const YamlNode async = root["async_mode"];
  if (async.type == YamlNode::Scalar) {
    asyncMode_ = std::stoi(async.scalar);
  } else if (async.type != YamlNode::Null) {
    std::fputs("[YamlNode] Expected scalar for int conversion\n", stderr);
    asyncMode_ = 0;
  }
  CheckParseYaml(root, "align_cam_id", &alignCamId_);
  CheckParseYaml(root, "align_direction", &alignDirectionSetting_);
  CheckParseYaml(root, "enable_filter", &enableFilter_);
  CheckParseYaml(root, "wls_filter", &wlsFilter_);
  CheckParseYaml(root, "depth_mode", &depthMode_);
  CheckParseYaml(root, "enable_voxel", &enableVoxel_);
  CheckParseYaml(root, "voxelSize", &voxelSize_);
  CheckParseYaml(root, "minPoints", &minPoints_);
  CheckParseYaml(root, "pointcloud_type", &pointcloudType_);
  CheckParseYaml(root, "pointcloud_ROI", &pointcloudROI_);
  CheckParseYaml(root, "skip_point", &skipPoint_);
  CheckParseYaml(root, "farthest_dist", &farthestDist_);
  CheckParseYaml(root, "cloest_dist", &cloestDist_);
  CheckParseYaml(root, "restore_depth_dim", &restoreDepthDim_);
  CheckParseYaml(root, "debug_image", &debugImage_);
  CheckParseYaml(root, "debug_img_save_path", &debugImgSavePath_);

  // Left, right, auxiliary. Appended, so a second call adds three more.
  const ImageSize inputs[3] = {{inputStereoWidth_, inputStereoHeight_},
                               {inputStereoWidth_, inputStereoHeight_},
                               {inputAuxCamWidth_, inputAuxCamHeight_}};
  const float scales[3] = {stereoImgScaling_, stereoImgScaling_, auxCamScaling_};
  for (int i = 0; i < 3; ++i) {
    const ImageSize scaled{static_cast<int>(static_cast<float>(inputs[i].width) * scales[i]),
                           static_cast<int>(static_cast<float>(inputs[i].height) * scales[i])};
    inputSizes_.push_back(inputs[i]);
    scaledSizes_.push_back(scaled);
    // From the truncated width, so it may differ slightly from the configured factor.
    scaleRatios_.push_back(static_cast<float>(scaled.width) / static_cast<float>(inputs[i].width));
  }

  if (!sizesFitBuffers()) return 1;

  // The model path is handed to the engines as written: the matcher does not use it.
  setDepthAlignedInfo(alignCamId_, alignDirectionSetting_, alignCamId_ != -1);
  if (calibPath_.empty()) return 0;

  if (initCameraFromCalibYaml(resolveAgainst(path, calibPath_)) == 1) {
    logError("initFromYaml", "init camera failed");
    return 1;
  }
  if (initRectifyMap() == 1) return 1;
  recreateEngines();
  return 0;
}

void StereoDepth::recreateEngines() {
  const ImageSize working = scaledSizes_[stereoCamIndex_];
  // Depth = baseline * rectified focal length / disparity, in the calibration's unit.
  const float focal = static_cast<float>(rectP1_.at<double>(0, 0));
  std::lock_guard<std::mutex> lock(engineMutex_);
  engines_.clear();
  for (int i = 0; i < threadNum_; ++i) {
    auto engine = StereoEngineFactory::createStereoEngine(working.width, working.height, 3, modelPath_, baseline_,
                                                          focal, debugImage_, debugImgSavePath_, depthMode_, 1.0f,
                                                          wlsFilter_);
    if (engine != nullptr) engines_.push_back(std::move(engine));
  }
}

}  // namespace KorvLumetra
