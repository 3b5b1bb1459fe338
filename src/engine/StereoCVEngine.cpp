#include "engine/StereoCVEngine.h"

#include <pthread.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc/disparity_filter.hpp>

#include "api/DebugDump.h"
#include "api/ErrorLog.h"
#include "engine/FrameRecords.h"

namespace KorvLumetra {

namespace {

// Matcher settings the depth output is tuned for.
constexpr int kP1 = 2904;
constexpr int kP2 = 11616;
constexpr int kDisp12MaxDiff = 4;
constexpr int kPreFilterCap = 51;
constexpr int kUniquenessRatio = 10;
constexpr int kSpeckleWindowSize = 150;
constexpr int kSpeckleRange = 1;
constexpr float kFixedPointToPixels = 0.0625f;  // the matcher's 4 fractional bits
constexpr float kMaxDepth = 12.0f;

}  // namespace

int StereoCVEngine::numberOfDisparities(int width, float imageScale) {
  const int cap = imageScale < 0.5f ? 64 : 128;
  // Each step in float: the result is deliberately not rounded to a multiple of 16.
  float product = static_cast<float>(width) * imageScale;
  product = product / 10.0f;
  product = product * 0.0625f;
  product = product * 16.0f;
  const int n = static_cast<int>(product);
  if (n > cap) return cap;
  return n < 16 ? 16 : n;
}

StereoCVEngine::StereoCVEngine(int width, int height, int channels, float depthFactorA,
                               float depthFactorB, float imageScale, int debugFlag,
                               std::string debugDir, bool useWls)
    : width_(width),
      height_(height),
      channels_(channels),
      depthFactorA_(depthFactorA),
      depthFactorB_(depthFactorB),
      imageScale_(imageScale),
      settings_{5, 0, 128, debugFlag},
      debugDir_(std::move(debugDir)),
      useWls_(useWls) {
  settings_.numDisparities = numberOfDisparities(width, imageScale);
  settings_.blockSize = kBlockSize;
  matcher_ = cv::StereoSGBM::create(settings_.minDisparity, settings_.numDisparities,
                                    settings_.blockSize, kP1, kP2, kDisp12MaxDiff, kPreFilterCap,
                                    kUniquenessRatio, kSpeckleWindowSize, kSpeckleRange,
                                    cv::StereoSGBM::MODE_SGBM_3WAY);
  setInputImageSize(width, height, channels);
  createBuffer();
  // Without its buffers the engine stays uninitialized and refuses frames.
  initialized_.store(workingFrame_ != nullptr);
  worker_ = std::thread(&StereoCVEngine::inferLoop, this);
}

StereoCVEngine::~StereoCVEngine() {
  {
    std::lock_guard<std::mutex> lock(inputMutex_);
    stop_.store(1);
    newInput_.store(false);
  }
  inputCondition_.notify_all();
  if (worker_.joinable()) worker_.join();
  destroyBuffer();
}

int StereoCVEngine::setInputImageSize(int width, int height, int channels) {
  width_ = width;
  height_ = height;
  channels_ = channels;
  shape_ = {1, 1, height, width};
  return 0;
}

void StereoCVEngine::createBuffer() {
  destroyBuffer();
  inputCapacity_ = static_cast<std::size_t>(width_) * height_ * channels_ * 2;
  resultCapacity_ = static_cast<std::size_t>(shape_[0]) * shape_[1] * shape_[2] * shape_[3];
  try {
    workingFrame_ = newImageRecord(inputCapacity_);
    stagingFrame_ = newImageRecord(inputCapacity_);
    std::lock_guard<std::mutex> lock(resultMutex_);
    disparityResult_ = newDepthRecord(resultCapacity_ * sizeof(float));
    depthResult_ = newDepthRecord(resultCapacity_ * sizeof(float));
    disparityResult_->width = static_cast<uint32_t>(shape_[3]);
    disparityResult_->height = static_cast<uint32_t>(shape_[2]);
    disparityResult_->channels = 1;
    disparityResult_->stride = static_cast<uint32_t>(shape_[3] * sizeof(float));
    float* depthData = depthResult_->data;
    *depthResult_ = *disparityResult_;
    depthResult_->data = depthData;
  } catch (const std::bad_alloc&) {
  }

  if (workingFrame_ == nullptr || stagingFrame_ == nullptr || depthResult_ == nullptr) {
    logErrorf("createBuffer", "Buffer create failed!");
    destroyBuffer();
    initialized_.store(false);
  }
}

void StereoCVEngine::destroyBuffer() {
  deleteRecord(workingFrame_);
  deleteRecord(stagingFrame_);
  std::lock_guard<std::mutex> lock(resultMutex_);
  deleteRecord(disparityResult_);
  deleteRecord(depthResult_);
}

int StereoCVEngine::feedImage(LumoImage* image) {
  if (image == nullptr || image->data == nullptr || !initialized_.load()) return 1;
  if (static_cast<int>(image->width) != width_ || static_cast<int>(image->height) != 2 * height_) {
    logErrorf("feedImage", "Image size mismatch! Expected: %dx%d, Got: %dx%d", width_, height_,
              static_cast<int>(image->width), static_cast<int>(image->height));
    return 1;
  }
  {
    std::lock_guard<std::mutex> lock(inputMutex_);
    uint8_t* buffer = stagingFrame_->data;
    *stagingFrame_ = *image;
    stagingFrame_->data = buffer;
    // A frame never holds more than two views of the configured size.
    const std::size_t bytes = image->size < inputCapacity_ ? image->size : inputCapacity_;
    stagingFrame_->size = static_cast<uint32_t>(bytes);
    std::memcpy(buffer, image->data, bytes);
    newInput_.store(true);
  }
  inputCondition_.notify_one();
  return 0;
}

int StereoCVEngine::getResult(float* depth, float* disparity, std::array<int, 4>& shape,
                              unsigned long long& timestamp) {
  if (!resultReady_.load()) return 1;
  if (depth == nullptr || disparity == nullptr) {
    logError("getResult", "allocate result memory first!");
    return 1;
  }
  std::lock_guard<std::mutex> lock(resultMutex_);
  shape = shape_;
  const std::size_t count = static_cast<std::size_t>(shape_[0]) * shape_[1] * shape_[2] * shape_[3];
  std::memcpy(disparity, disparityResult_->data, count * sizeof(float));
  std::memcpy(depth, depthResult_->data, count * sizeof(float));
  timestamp = latestTimestamp_.load();
  resultReady_.store(false);
  return 0;
}

int StereoCVEngine::getImageScale(float* scale) const {
  if (!initialized_.load()) return 1;
  *scale = imageScale_;
  return 0;
}

int StereoCVEngine::computeDisparity(cv::Mat& disparity, cv::Mat& raw) {
  if (leftGray_.data == nullptr || rightGray_.empty() || rightGray_.data == nullptr) return 1;
  matcher_->compute(leftGray_, rightGray_, raw);
  if (!raw.empty()) {
    raw.convertTo(disparity, CV_32F, kFixedPointToPixels, 0.0);
    return 0;
  }
  disparity = cv::Mat::zeros(leftGray_.size(), CV_32F);
  return 0;
}

void StereoCVEngine::WLSFilterDisparity(const cv::Mat& raw, cv::Mat& filtered) {
  // Made afresh per frame: the filter keeps per-image state we do not want to carry over.
  cv::Ptr<cv::StereoMatcher> rightMatcher = cv::ximgproc::createRightMatcher(matcher_);
  cv::Mat rightRaw;
  rightMatcher->compute(rightGray_, leftGray_, rightRaw);
  cv::Ptr<cv::ximgproc::DisparityWLSFilter> wls = cv::ximgproc::createDisparityWLSFilter(matcher_);
  wls->setLambda(1000.0);
  wls->setSigmaColor(0.5);
  wls->setDepthDiscontinuityRadius(5);
  cv::Mat filteredRaw;
  wls->filter(raw, leftGray_, filteredRaw, rightRaw);
  filteredRaw.convertTo(filtered, CV_32F, kFixedPointToPixels, 0.0);
}

int StereoCVEngine::disparity2Depth(const LumoDepthImage* disparity, LumoDepthImage* depth) {
  std::memset(depth->data, 0, depth->size);
  if (disparity->data == nullptr || disparity->size == 0) {
    logErrorf("disparity2Depth", "Disparity map is empty, depth map set to zero");
    return 1;
  }
  const float k = depthFactorB_ * depthFactorA_ * imageScale_;
  const float limit = static_cast<float>(settings_.numDisparities);
  const std::size_t count = disparity->size / sizeof(float);
  const float* in = disparity->data;
  float* out = depth->data;
  for (std::size_t i = 0; i < count; ++i) {
    const float d = in[i];
    float z = 0.0f;
    // Written as negations so that NaN disparities also give no depth.
    if (!(static_cast<double>(d) <= 0.01) && d < limit) {
      z = k / d;
      if (z > kMaxDepth) z = 0.0f;  // dropped, not clamped
    }
    out[i] = z;
  }
  float* data = depth->data;
  *depth = *disparity;
  depth->data = data;
  return 0;
}

void StereoCVEngine::inferLoop() {
  pthread_setname_np(pthread_self(), "KorvDepthInfer");
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(inputMutex_);
      inputCondition_.wait(lock, [this] { return newInput_.load() || stop_.load() != 0; });
      if (stop_.load() != 0) return;
      std::swap(workingFrame_, stagingFrame_);
      newInput_.store(false);
    }
    busy_.store(1);
    // An exception must not end the host: the frame gives no result, the worker goes on.
    try {
      matchFrame(workingFrame_);
      resultReady_.store(true);
      announceResult();
    } catch (const std::exception& e) {
      logErrorf("inferLoop", "frame %llu dropped: %s\n", static_cast<unsigned long long>(workingFrame_->timestamp),
                oneLine(e.what()).c_str());
      droppedFrames_.fetch_add(1);
    } catch (...) {
      logError("inferLoop", "frame dropped: unknown exception");
      droppedFrames_.fetch_add(1);
    }
    busy_.store(0);
  }
}

void StereoCVEngine::matchFrame(const LumoImage* frame) {
  // Grey pairs (one channel) are matched as they are: the grey of three equal
  // channels is that channel, before and after resizing.
  const bool grey = frame->channels == 1;
  const int viewRows = static_cast<int>(frame->height / 2);
  const int viewCols = static_cast<int>(frame->width);
  if (settings_.debug != 0) {
    const cv::Mat pair(static_cast<int>(frame->height), viewCols, grey ? CV_8UC1 : CV_8UC3, frame->data);
    cv::Mat dumped = pair;
    if (grey) cv::cvtColor(pair, dumped, cv::COLOR_GRAY2BGR);
    DebugDump(debugDir_).image("combined_img_", frame->timestamp, dumped);
  }

  const cv::Mat left(viewRows, viewCols, grey ? CV_8UC1 : CV_8UC3, frame->data);
  const cv::Mat right(viewRows, viewCols, grey ? CV_8UC1 : CV_8UC3, frame->data + frame->size / 2);
  if (std::fabs(imageScale_ - 1.0f) > 1e-6) {
    if (grey) {
      cv::resize(left, leftGray_, cv::Size(), imageScale_, imageScale_, cv::INTER_LINEAR);
      cv::resize(right, rightGray_, cv::Size(), imageScale_, imageScale_, cv::INTER_LINEAR);
    } else {
      cv::resize(left, leftScaled_, cv::Size(), imageScale_, imageScale_, cv::INTER_LINEAR);
      cv::resize(right, rightScaled_, cv::Size(), imageScale_, imageScale_, cv::INTER_LINEAR);
      cv::cvtColor(leftScaled_, leftGray_, cv::COLOR_BGR2GRAY);
      cv::cvtColor(rightScaled_, rightGray_, cv::COLOR_BGR2GRAY);
    }
  } else if (grey) {
    left.copyTo(leftGray_);
    right.copyTo(rightGray_);
  } else {
    cv::cvtColor(left, leftGray_, cv::COLOR_BGR2GRAY);
    cv::cvtColor(right, rightGray_, cv::COLOR_BGR2GRAY);
  }
  // OpenCV's matcher asserts inside a destructor on views with no room for
  // its search, which no handler can catch: such views are refused here.
  if (leftGray_.cols <= settings_.numDisparities) {
    throw std::length_error("views of " + std::to_string(leftGray_.cols) + " columns leave no room for " +
                            std::to_string(settings_.numDisparities) + " disparities");
  }

  computeDisparity(disparity_, rawDisparity_);
  const cv::Mat* chosen = &disparity_;
  if (useWls_) {
    WLSFilterDisparity(rawDisparity_, wlsDisparity_);
    chosen = &wlsDisparity_;
  }

  {
    std::lock_guard<std::mutex> lock(resultMutex_);
    std::size_t count = chosen->total();
    if (count > resultCapacity_) count = resultCapacity_;
    if (chosen->isContinuous()) std::memcpy(disparityResult_->data, chosen->ptr<float>(), count * sizeof(float));
    disparityResult_->size = static_cast<uint32_t>(count * sizeof(float));
    disparityResult_->timestamp = frame->timestamp;
    disparity2Depth(disparityResult_, depthResult_);
  }
  latestTimestamp_.store(frame->timestamp);

  if (settings_.debug != 0) {
    const DebugDump dump(debugDir_);
    dump.matrix("sgbm_disparity_", frame->timestamp, "disparity", *chosen);
    std::lock_guard<std::mutex> lock(resultMutex_);
    dump.matrix("sgbm_depth_", frame->timestamp, "depth", cv::Mat(shape_[2], shape_[3], CV_32F, depthResult_->data));
  }
}

}  // namespace KorvLumetra
