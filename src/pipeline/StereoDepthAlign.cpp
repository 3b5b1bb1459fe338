// StereoDepth: the auxiliary (colour) camera side of alignment.
#include <cmath>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "api/ErrorLog.h"
#include "pipeline/StereoDepth.h"

namespace KorvLumetra {

int StereoDepth::feedRGBImage(LumoImage* image) {
  if (moduleEnabled_ == 0) {
    logError("feedRGBImage", "depth module is not enabled");
    return 1;
  }
  if (inputSizes_.size() <= kAuxCamIndex || image == nullptr || image->data == nullptr) {
    logError("feedRGBImage", "rectify map or camera image size not exists");
    return 1;
  }
  const ImageSize input = inputSizes_[kAuxCamIndex];
  const int channels = image->channels == 1 ? 1 : 3;
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
  if (std::fabs(auxCamScaling_ - 1.0f) > 1.1920929e-7f || wrapped.cols != input.width ||
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

}  // namespace KorvLumetra
