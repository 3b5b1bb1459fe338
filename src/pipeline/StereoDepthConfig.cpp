// StereoDepth: reading the configuration file.
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "api/ErrorLog.h"
#include "engine/StereoCVEngine.h"
#include "engine/StereoEngineFactory.h"
#include "pipeline/StereoDepth.h"
#include "yaml/YamlNode.h"
#include "yaml/YamlReaders.h"

namespace KorvLumetra {

namespace {

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

namespace {

// Working size of a side: the product in single precision, truncated; a
// product with no int (a refused factor) gives 0 instead of undefined behaviour.
int scaledSide(int side, float scale) {
  const float product = static_cast<float>(side) * scale;
  if (!(product > -2147483648.0f && product < 2147483648.0f)) return 0;
  return static_cast<int>(product);
}

std::string shortText(const std::string& text) { return text.size() > 40 ? text.substr(0, 40) + "..." : text; }

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", value);
  return text;
}

std::string sizeText(int width, int height) { return std::to_string(width) + "x" + std::to_string(height); }

}  // namespace

// Settings that no pipeline can work with, in the order they are checked.
std::string StereoDepth::settingsProblem() const {
  const auto badScale = [](float scale) { return !(scale > 0.0f && scale <= kMaxScaling); };
  if (badScale(stereoImgScaling_)) {
    return "stereo_img_scaling " + number(stereoImgScaling_) + " must be above 0 and at most " + number(kMaxScaling);
  }
  if (badScale(auxCamScaling_)) {
    return "aux_cam_scaling " + number(auxCamScaling_) + " must be above 0 and at most " + number(kMaxScaling);
  }
  if (inputStereoWidth_ <= 0 || inputStereoHeight_ <= 0) {
    return "input_stereo_width x input_stereo_height " + sizeText(inputStereoWidth_, inputStereoHeight_) +
           " must be above zero";
  }
  const bool colourAligned = alignCamId_ == static_cast<int>(kAuxCamIndex);
  if (inputAuxCamWidth_ < 0 || inputAuxCamHeight_ < 0 ||
      (colourAligned && (inputAuxCamWidth_ == 0 || inputAuxCamHeight_ == 0))) {
    return "input_aux_cam_width x input_aux_cam_height " + sizeText(inputAuxCamWidth_, inputAuxCamHeight_) +
           " must be above zero";
  }
  if (threadNum_ < 0 || threadNum_ > kMaxThreads) {
    return "thread_num " + std::to_string(threadNum_) + " must be 0 to " + std::to_string(kMaxThreads);
  }
  if (alignCamId_ < -1 || alignCamId_ > static_cast<int>(kAuxCamIndex)) {
    return "align_cam_id " + std::to_string(alignCamId_) +
           " must be -1 (off), 0 or 1 (a stereo camera) or 2 (the colour camera)";
  }
  // The matcher needs its disparity search and a block beside it, and a block's height.
  const ImageSize working = scaledSizes_[scaledSizes_.size() - 3];
  const int search = StereoCVEngine::numberOfDisparities(working.width, 1.0f);
  if (working.width < search + StereoCVEngine::kBlockSize || working.height < StereoCVEngine::kBlockSize) {
    return "the views are " + sizeText(working.width, working.height) +
           " pixels when matched (input_stereo_width x input_stereo_height at stereo_img_scaling): the matcher "
           "needs at least " +
           sizeText(search + StereoCVEngine::kBlockSize, StereoCVEngine::kBlockSize) + " for its " +
           std::to_string(search) + " disparities and " + std::to_string(StereoCVEngine::kBlockSize) +
           "-pixel block";
  }
  return std::string();
}

int StereoDepth::initFromYaml(const std::string& path) {
  using KorvTech::YamlNode;
  const std::string unreadable = YamlNode::UnreadableReason(path);
  if (unreadable == "does not exist") {
    logErrorf("initFromYaml", "file not exits: %s\n", path.c_str());
    return 1;
  }
  if (!unreadable.empty()) {
    logErrorf("initFromYaml", "configuration file %s %s\n", path.c_str(), unreadable.c_str());
    return 1;
  }
  const YamlNode root = YamlNode::LoadFile(path);

  // Text where a number belongs is refused with the key's name instead of
  // leaving the host with an exception.
  std::string reading;
  const auto required = [&](const char* key, auto* out) {
    reading = key;
    CheckParseYaml(root, key, out);
  };
  const auto optional = [&](const char* key, auto* out, auto fallback) {
    reading = key;
    ParseYamlOrDefault(root, key, out, &fallback);
  };
  try {
    required("enable_module", &moduleEnabled_);
    required("model_path", &modelPath_);
    const YamlNode calib = root["calib_path"];
    if (calib.type == YamlNode::Scalar) {
      calibPath_ = calib.scalar;
    } else {
      if (calib.type != YamlNode::Null) std::fputs("[YamlNode] Expected scalar for string conversion\n", stderr);
      calibPath_.clear();
    }
    required("input_stereo_width", &inputStereoWidth_);
    required("input_stereo_height", &inputStereoHeight_);
    optional("stereo_img_scaling", &stereoImgScaling_, 1.0f);
    optional("input_aux_cam_width", &inputAuxCamWidth_, int32_t{1920});
    optional("input_aux_cam_height", &inputAuxCamHeight_, int32_t{1080});
    optional("aux_cam_scaling", &auxCamScaling_, 1.0f);
    required("thread_num", &threadNum_);
    reading = "async_mode";
    const YamlNode async = root["async_mode"];
    if (async.type == YamlNode::Scalar) {
      asyncMode_ = std::stoi(async.scalar);
    } else if (async.type != YamlNode::Null) {
      std::fputs("[YamlNode] Expected scalar for int conversion\n", stderr);
      asyncMode_ = 0;
    }
    required("align_cam_id", &alignCamId_);
    required("align_direction", &alignDirectionSetting_);
    required("enable_filter", &enableFilter_);
    required("wls_filter", &wlsFilter_);
    required("depth_mode", &depthMode_);
    required("enable_voxel", &enableVoxel_);
    required("voxelSize", &voxelSize_);
    required("minPoints", &minPoints_);
    required("pointcloud_type", &pointcloudType_);
    required("pointcloud_ROI", &pointcloudROI_);
    required("skip_point", &skipPoint_);
    required("farthest_dist", &farthestDist_);
    required("cloest_dist", &cloestDist_);
    required("restore_depth_dim", &restoreDepthDim_);
    required("debug_image", &debugImage_);
    required("debug_img_save_path", &debugImgSavePath_);
  } catch (const std::logic_error&) {  // std::invalid_argument, std::out_of_range
    logErrorf("initFromYaml", "%s: '%s' is not a number, or is out of range\n", reading.c_str(),
              shortText(root[reading].scalar).c_str());
    configRefused_.store(true);
    return 1;
  }

  // Left, right, auxiliary. Appended, so a second call adds three more.
  const ImageSize inputs[3] = {{inputStereoWidth_, inputStereoHeight_},
                               {inputStereoWidth_, inputStereoHeight_},
                               {inputAuxCamWidth_, inputAuxCamHeight_}};
  const float scales[3] = {stereoImgScaling_, stereoImgScaling_, auxCamScaling_};
  for (int i = 0; i < 3; ++i) {
    const ImageSize scaled{scaledSide(inputs[i].width, scales[i]), scaledSide(inputs[i].height, scales[i])};
    inputSizes_.push_back(inputs[i]);
    scaledSizes_.push_back(scaled);
    // From the truncated width, so it may differ slightly from the configured factor.
    scaleRatios_.push_back(static_cast<float>(scaled.width) / static_cast<float>(inputs[i].width));
  }

  const std::string problem = settingsProblem();
  if (!problem.empty()) logError("initFromYaml", problem.c_str());
  if (!problem.empty() || !sizesFitBuffers()) {
    configRefused_.store(true);
    return 1;
  }

  // The model path is handed to the engines as written: the matcher does not use it.
  setDepthAlignedInfo(alignCamId_, alignDirectionSetting_, alignCamId_ != -1);
  if (calibPath_.empty()) return 0;

  if (initCameraFromCalibYaml(resolveAgainst(path, calibPath_)) == 1) {
    logError("initFromYaml", "init camera failed");
    return 1;
  }
  if (alignCameraMissing("initFromYaml")) return 1;
  if (initRectifyMap() == 1) return 1;
  recreateEngines();
  return 0;
}

void StereoDepth::recreateEngines() {
  const ImageSize working = scaledSizes_[stereoCamIndex_];
  // Depth = baseline * rectified focal length / disparity, in the calibration's unit.
  const float focal = static_cast<float>(calibration_.P1().at<double>(0, 0));
  std::lock_guard<std::mutex> lock(engineMutex_);
  engines_.clear();
  for (int i = 0; i < threadNum_; ++i) {
    auto engine = StereoEngineFactory::createStereoEngine(working.width, working.height, 3, modelPath_, calibration_.baseline(),
                                                          focal, debugImage_, debugImgSavePath_, depthMode_, 1.0f,
                                                          wlsFilter_);
    adoptEngine(std::move(engine));
  }
}

}  // namespace KorvLumetra
