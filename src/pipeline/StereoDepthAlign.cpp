// StereoDepth: the auxiliary (colour) camera side of alignment.
#include <limits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "api/ErrorLog.h"
#include "engine/FrameRecords.h"
#include "pipeline/StereoDepth.h"

namespace KorvLumetra {

int StereoDepth::feedRGBImage(LumoImage* image) {
  if (refusedConfiguration("feedRGBImage")) return 1;
  if (moduleEnabled_ == 0) {
    logError("feedRGBImage", "depth module is not enabled");
    return 1;
  }
  if (image == nullptr || image->data == nullptr) {
    logError("feedRGBImage", "allocate memory before calling");
    return 1;
  }
  if (inputSizes_.size() <= kAuxCamIndex) {
    logError("feedRGBImage", "rectify map or camera image size not exists");
    return 1;
  }
  // The aligned record hands out the frame's channel count: only the two kinds it can hold are taken.
  const bool sidesFit = image->width > 0 && image->height > 0 && image->width <= kMaxFrameSide &&
                        image->height <= kMaxFrameSide;
  if (!sidesFit || (image->channels != 1 && image->channels != 3)) {
    logErrorf("feedRGBImage",
              "colour frame of %ux%u pixels with %u channels: it must have 1 to %u pixels a side and 1 or 3 channels\n",
              image->width, image->height, image->channels, kMaxFrameSide);
    return 1;
  }
  const ImageSize input = inputSizes_[kAuxCamIndex];
  const int channels = static_cast<int>(image->channels);
  const std::size_t bytes = static_cast<std::size_t>(input.width) * input.height * channels;
  if (input.width <= 0 || input.height <= 0 || bytes > kRingSlotBytes) {
    logError("feedRGBImage", "input image size does not match config params");
    return 1;
  }
  const cv::Mat wrapped(static_cast<int>(image->height), static_cast<int>(image->width),
                        channels == 1 ? CV_8UC1 : CV_8UC3, image->data);
  cv::Mat frame = wrapped;
  // Brought to the configured size; a frame of another size is resized too,
  // so that the copy below never reads past the host's buffer.
  if (std::fabs(auxCamScaling_ - 1.0f) > std::numeric_limits<float>::epsilon() || wrapped.cols != input.width ||
      wrapped.rows != input.height) {
    cv::resize(wrapped, frame, cv::Size(input.width, input.height), 0, 0, cv::INTER_LINEAR);
  }

  std::lock_guard<std::mutex> lock(colourRingMutex_);
  colourRing_->push();
  LumoImage* slot = colourRing_->back();
  slot->tag0 = image->tag0;
  slot->tag1 = image->tag1;
  slot->timestamp = image->timestamp;
  slot->channels = image->channels;
  slot->width = static_cast<uint32_t>(input.width);
  slot->height = static_cast<uint32_t>(input.height);
  slot->stride = slot->width * static_cast<uint32_t>(channels);
  slot->size = static_cast<uint32_t>(bytes);
  slot->format = channels == 1 ? 2 : 0;  // the codes the colour-to-depth alignment accepts
  std::memcpy(slot->data, frame.data, bytes);
  return 0;
}

int StereoDepth::initAlignParam() {
  float scale = 1.0f;
  {
    std::lock_guard<std::mutex> lock(engineMutex_);
    if (engines_.empty() || engines_[0]->getImageScale(&scale) != 0) return 1;
  }
  const std::size_t other = static_cast<std::size_t>(alignedCamIndex_);
  const StereoCalibration& calib = calibration_;
  if (alignedCamIndex_ < 0 || other >= calib.kInput().size() || other >= inputSizes_.size() ||
      other > calib.transforms().size() || calib.R1().empty()) {
    return 1;
  }

  // The depth camera is the rectified left view: a pinhole without distortion,
  // on the grid of the depth images, the working size (which P1 describes)
  // times the engine's scale.
  LumoIntrinsics depthIntrinsics{};
  const ImageSize depthGrid = scaledSizes_[stereoCamIndex_];
  const cv::Mat& P1 = calib.P1();
  depthIntrinsics.width = static_cast<uint32_t>(std::round(static_cast<float>(depthGrid.width) * scale));
  depthIntrinsics.height = static_cast<uint32_t>(std::round(static_cast<float>(depthGrid.height) * scale));
  depthIntrinsics.fx = static_cast<float>(P1.at<double>(0, 0) * scale);
  depthIntrinsics.fy = static_cast<float>(P1.at<double>(1, 1) * scale);
  depthIntrinsics.cx = static_cast<float>(P1.at<double>(0, 2) * scale);
  depthIntrinsics.cy = static_cast<float>(P1.at<double>(1, 2) * scale);

  LumoIntrinsics otherIntrinsics{};
  if (!calib.cameraIntrinsics(other, true, inputSizes_[other], &otherIntrinsics)) {
    logError("initAlignParam", "unknow cam model, exiting");
    std::fflush(stdout);
    std::exit(-1);
  }

  // Rectified depth frame -> left camera (R1 transposed) -> along the chain to the other camera.
  const cv::Mat& R1 = calib.R1();
  Eigen::Matrix4d E = Eigen::Matrix4d::Identity();
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) E(r, c) = R1.at<double>(c, r);
  }
  for (std::size_t i = 0; i < other; ++i) E = calib.transforms()[i] * E;
  LumoExtrinsics depthToOther{};
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) depthToOther.rotation[3 * r + c] = static_cast<float>(E(r, c));
    depthToOther.translation[r] = static_cast<float>(E(r, 3));
  }

  alignImage_ = std::make_unique<AlignImage>();
  alignImage_->setAlignInfo(depthIntrinsics, otherIntrinsics, depthToOther);
  alignInitialized_.store(true);
  return 0;
}

int StereoDepth::syncAlignImages(int auxTolerance, int stereoTolerance) {
  const bool auxiliary = alignedCamIndex_ >= 2;
  std::mutex& groupMutex = auxiliary ? colourRingMutex_ : stereoRingMutex_;
  LumoUtils::LumoImageRing& ring = auxiliary ? *colourRing_ : *stereoRing_;
  const int32_t tolerance = auxiliary ? auxTolerance : stereoTolerance;
  // Written by this thread only, so read without the result mutex.
  const uint64_t reference = depth_->timestamp;

  std::lock_guard<std::mutex> lock(groupMutex);
  while (ring.size() != 0) {
    const LumoImage* front = ring.front();
    // Compared on the low 32 bits as a signed difference.
    const int32_t diff =
        static_cast<int32_t>(static_cast<uint32_t>(reference) - static_cast<uint32_t>(front->timestamp));
    // The match is strict on both sides. A frame exactly one tolerance older
    // can never match a later depth either, so it goes like an older one
    // instead of holding the thread; one exactly a tolerance newer waits.
    if (diff >= tolerance) {
      ring.pop_front();
      continue;
    }
    if (diff <= -tolerance) return 0;  // newer: kept for a later depth
    // A stereo frame is copied whole, both views stacked, as designed.
    copyRecord(colourInput_, front);
    ring.pop_front();
    return 1;
  }
  return 0;
}

}  // namespace KorvLumetra
