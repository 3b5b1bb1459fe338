#include "pipeline/StereoDepth.h"

#include <pthread.h>

#include <limits>
#include <array>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <map>
#include <utility>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "api/DebugDump.h"
#include "api/ErrorLog.h"
#include "engine/FrameRecords.h"
#include "pipeline/StageTimeline.h"

namespace KorvLumetra {

namespace {

constexpr float kFloatEpsilon = std::numeric_limits<float>::epsilon();
constexpr int kSyncPolls = 2000;
constexpr int kSyncPollsDebug = 200000;  // debug dumps are slow
constexpr int kRemapBandPixels = 1 << 16;  // OpenCV splits a remap per 64 Ki pixels

}  // namespace

StereoDepth::StereoDepth() {
  newFrame_.store(0);
  running_.store(1);
  preprocessThread_ = std::thread(&StereoDepth::preprocessLoop, this);
  // The buffers are reserved after the first thread starts: if memory runs
  // out, that thread is stopped before the failure leaves the constructor.
  try {
    incomingStereo_ = newImageRecord(kStereoBufferBytes);
    workingStereo_ = newImageRecord(kStereoBufferBytes);
    rectified_ = newImageRecord(kStereoBufferBytes);
    unrectifiedViews_ = newImageRecord(kStereoBufferBytes);
    depth_ = newDepthRecord(kDepthBufferBytes);
    disparity_ = newDepthRecord(kDepthBufferBytes);
    depthOutput_ = newDepthRecord(kOutputBufferBytes);
    alignedColour_ = newImageRecord(kColourBufferBytes);
    colourInput_ = newImageRecord(kColourBufferBytes);
    colourToDepth_ = newImageRecord(kColourBufferBytes);
    depthToColour_ = newDepthRecord(kOutputBufferBytes);
    temporalFilter_ = std::make_unique<KesTemporalFilter>();
    spatialFilter_ = std::make_unique<VorSpatialFilter>();

    stereoRing_ = std::make_unique<LumoUtils::LumoImageRing>(kStereoRingSlots, kRingSlotBytes);
    colourRing_ = std::make_unique<LumoUtils::LumoImageRing>(kColourRingSlots, kRingSlotBytes);
    poseRing_ = std::make_unique<LumoUtils::LumoPoseRing>(kPoseRingSlots);
  } catch (...) {
    stopThreads();
    freeBuffers();
    throw;
  }
  resultThread_ = std::thread(&StereoDepth::updateResult, this);
}

StereoDepth::~StereoDepth() {
  stopThreads();
  freeBuffers();
}

void StereoDepth::stopThreads() {
  {
    // Under the frame mutex, so that the preprocessing thread cannot miss the
    // wake-up between its check of the flag and its wait.
    std::lock_guard<std::mutex> lock(frameMutex_);
    running_.store(0);
    newFrame_.store(0);
  }
  frameCondition_.notify_all();
  {
    std::lock_guard<std::mutex> lock(engineReadyMutex_);
    engineReady_ = true;  // wakes the result thread to see the stop
  }
  engineReadyCondition_.notify_all();
  if (resultThread_.joinable()) resultThread_.join();
  {
    std::lock_guard<std::mutex> lock(engineMutex_);
    for (auto& engine : engines_) engine.reset();
    engines_.clear();
  }
  temporalFilter_.reset();
  spatialFilter_.reset();
  alignImage_.reset();
  if (preprocessThread_.joinable()) preprocessThread_.join();
}

void StereoDepth::freeBuffers() {
  stereoRing_.reset();
  colourRing_.reset();
  poseRing_.reset();
  deleteRecord(incomingStereo_);
  deleteRecord(workingStereo_);
  deleteRecord(rectified_);
  deleteRecord(unrectifiedViews_);
  deleteRecord(depth_);
  deleteRecord(disparity_);
  deleteRecord(depthOutput_);
  deleteRecord(alignedColour_);
  deleteRecord(colourInput_);
  deleteRecord(colourToDepth_);
  deleteRecord(depthToColour_);
  std::free(rayTable_);
  std::free(pointBuffer_);
}

void StereoDepth::addEngine(std::unique_ptr<StereoEngineBase> engine) {
  std::lock_guard<std::mutex> lock(engineMutex_);
  adoptEngine(std::move(engine));
}

// With the engine mutex. Every engine the pipeline holds comes through here, so
// that each one wakes the result thread when it has a result: that thread
// sleeps until then.
void StereoDepth::adoptEngine(std::unique_ptr<StereoEngineBase> engine) {
  if (engine == nullptr) return;
  engine->setResultListener([this] {
    markStage(Stage::kEngineResult);
    {
      std::lock_guard<std::mutex> lock(engineReadyMutex_);
      engineReady_ = true;
    }
    engineReadyCondition_.notify_one();
  });
  engines_.push_back(std::move(engine));
}

std::size_t StereoDepth::engineCount() {
  std::lock_guard<std::mutex> lock(engineMutex_);
  return engines_.size();
}

int StereoDepth::setDepthAlignedInfo(int cameraIndex, bool direction, bool enabled) {
  alignedCamIndex_ = cameraIndex;
  alignDirection_ = direction;
  alignEnabled_.store(enabled);
  alignInitialized_.store(false);
  return 0;
}

int StereoDepth::feedStereoImage(LumoImage* frame) {
  markStage(Stage::kFed);
  if (refusedConfiguration("feedStereoImage")) return 1;
  if (moduleEnabled_ == 0) {
    logError("feedStereoImage", "depth module is not enabled");
    return 1;
  }
  if (frame == nullptr || frame->data == nullptr) {
    logError("feedStereoImage", "allocate memory before calling");
    return 1;
  }
  if (frame->timestamp == 0) {
    // Results and the synchronous wait tell frames apart by time stamp; 0 means "none yet".
    logError("feedStereoImage", "frame time stamp 0 is reserved for 'no frame yet': give frames a non-zero time stamp");
    return 1;
  }
  if (!calibration_.rectified() || inputSizes_.empty()) {
    logError("feedStereoImage", "rectify map or camera image size not exists");
    return 1;
  }
  const ImageSize input = inputSizes_[stereoCamIndex_];
  if (static_cast<int>(frame->width) != input.width ||
      static_cast<int>(frame->height) != 2 * input.height) {
    logError("feedStereoImage", "input image size does not match config params");
    return 1;
  }

  cv::Mat original;
  if (frame->channels == 1) {
    original = cv::Mat(static_cast<int>(frame->height), static_cast<int>(frame->width), CV_8UC1, frame->data);
  } else if (frame->channels == 3) {
    original = cv::Mat(static_cast<int>(frame->height), static_cast<int>(frame->width), CV_8UC3, frame->data);
  }

  if (debugImage_ != 0) {
    if (!original.empty()) DebugDump(debugImgSavePath_).image("origin_", frame->timestamp, original);
    // The name printed is not the file's, deliberately.
    std::cout << "origin image save to : " << debugImgSavePath_ + "/origin_" + formatTimestamp(frame->timestamp) + ".bmp"
              << std::endl;
  }

  cv::Mat image = original;
  const float scale = scaleRatios_[stereoCamIndex_];
  if (std::fabs(scale - 1.0f) > kFloatEpsilon && !original.empty()) {
    const ImageSize scaled = scaledSizes_[stereoCamIndex_];
    cv::resize(original, image, cv::Size(scaled.width, 2 * scaled.height), 0, 0, cv::INTER_LINEAR);
  }

  // An unsupported channel code travels on with an empty image, so that the
  // preprocessing thread reports it.
  const uint32_t channels = image.empty() ? frame->channels : static_cast<uint32_t>(image.channels());
  // The configuration was checked against the buffers; this keeps it so.
  if (image.total() * image.elemSize() > kStereoBufferBytes) {
    logError("feedStereoImage", "input image size does not match config params");
    return 1;
  }
  const auto fill = [&](LumoImage* record) {
    record->tag0 = frame->tag0;
    record->tag1 = frame->tag1;
    record->timestamp = frame->timestamp;
    record->format = frame->format;
    record->width = static_cast<uint32_t>(image.cols);
    record->height = static_cast<uint32_t>(image.rows);
    record->channels = channels;
    record->stride = channels * record->width;
    record->size = static_cast<uint32_t>(image.total() * image.elemSize());
    if (record->size != 0) std::memcpy(record->data, image.data, record->size);
  };

  {
    std::lock_guard<std::mutex> lock(frameMutex_);
    fill(incomingStereo_);
    newFrame_.store(1);
  }

  if (debugImage_ != 0 && !image.empty()) DebugDump(debugImgSavePath_).image("feedresizedImg_", frame->timestamp, image);

  {
    std::lock_guard<std::mutex> lock(stereoRingMutex_);
    stereoRing_->push();
    fill(stereoRing_->back());
  }
  frameCondition_.notify_one();

  if (asyncMode_ != 0) return 0;

  // Up to 2000 (debug: 200000) waits of 1 ms; the result thread wakes us as
  // soon as an output is ready instead of us polling for it.
  const int budget = debugImage_ != 0 ? kSyncPollsDebug : kSyncPolls;
  const uint64_t timestamp = frame->timestamp;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(budget);
  std::unique_lock<std::mutex> lock(resultMutex_);
  return resultCondition_.wait_until(lock, deadline, [&] { return depthOfFrameReady(timestamp); }) ? 0 : 1;
}

bool StereoDepth::depthOfFrameReady(uint64_t timestamp) {
  if (alignEnabled_.load()) {
    return depthToColour_->timestamp == timestamp || colourToDepth_->timestamp == timestamp;
  }
  // The output record, not the raw depth: it is filled under a second hold of
  // the lock, and the caller's next getDepthImage must see this frame.
  return depthOutput_->timestamp == timestamp;
}

void StereoDepth::preprocessLoop() {
  pthread_setname_np(pthread_self(), "KorvDepthPre");
  while (LumoImage* frame = takeFrame()) {
    // An exception must not end the host: the frame is dropped, the thread goes on.
    markStage(Stage::kPreprocessing);
    try {
      if (!toEngineChannels(*frame)) continue;
      rectifyViews(*frame);
      handToEngine();
      markStage(Stage::kHandedToEngine);
    } catch (const std::exception& e) {
      logErrorf("preprocessLoop", "frame %llu dropped: %s\n", static_cast<unsigned long long>(frame->timestamp),
                oneLine(e.what()).c_str());
    } catch (...) {
      logError("preprocessLoop", "frame dropped: unknown exception");
    }
  }
}

// With the frame mutex: waits for a fed frame and swaps it into the working
// record; null once the pipeline stops. A frame fed while this thread was busy
// is taken at once; frames fed faster than they are taken are dropped but the last.
LumoImage* StereoDepth::takeFrame() {
  std::unique_lock<std::mutex> lock(frameMutex_);
  frameCondition_.wait(lock, [this] { return newFrame_.load() != 0 || running_.load() == 0; });
  if (running_.load() == 0) return nullptr;
  newFrame_.store(0);
  std::swap(incomingStereo_, workingStereo_);
  return workingStereo_;
}

// Colour views swapped to the channel order the engine takes, in the
// unrectified views record (this thread's own). Grey views stay grey and are
// remapped from the frame itself: three equal channels remap to three equal
// channels that convert back to the same grey, so one channel does the work of
// three with the same result. False for a channel count it cannot take.
bool StereoDepth::toEngineChannels(const LumoImage& frame) {
  if (frame.channels == 1) return true;
  if (frame.channels == 3) {
    const int rows = static_cast<int>(frame.height / 2);
    const int cols = static_cast<int>(frame.width);
    const std::size_t halfBytes = static_cast<std::size_t>(cols) * rows * 3;
    cv::cvtColor(cv::Mat(rows, cols, CV_8UC3, frame.data), cv::Mat(rows, cols, CV_8UC3, unrectifiedViews_->data),
                 cv::COLOR_BGR2RGB);
    cv::cvtColor(cv::Mat(rows, cols, CV_8UC3, frame.data + halfBytes),
                 cv::Mat(rows, cols, CV_8UC3, unrectifiedViews_->data + halfBytes), cv::COLOR_BGR2RGB);
    return true;
  }
  logErrorf("preprocessLoop", "stereo depth: unrecognized image channel %d\n", static_cast<int>(frame.channels));
  return false;
}

// With the rectify mutex: both views remapped into the rectified record, which
// keeps the views' channel count (1 or 3); hosts always get three channels.
void StereoDepth::rectifyViews(const LumoImage& frame) {
  const int rows = static_cast<int>(frame.height / 2);
  const int cols = static_cast<int>(frame.width);
  const uint32_t channels = frame.channels == 1 ? 1 : 3;
  const std::size_t halfBytes = static_cast<std::size_t>(cols) * rows * channels;
  const uint8_t* views = channels == 1 ? frame.data : unrectifiedViews_->data;
  std::lock_guard<std::mutex> lock(rectifyMutex_);
  copyHeader(rectified_, &frame);
  rectified_->stride = frame.stride;
  rectified_->channels = channels;
  rectified_->size = frame.width * frame.height * channels;
  const std::vector<cv::Mat>& map1 = calibration_.map1();
  const std::vector<cv::Mat>& map2 = calibration_.map2();
  // Remapped in bands of at most 64 Ki pixels, which OpenCV keeps on this
  // thread: a whole view would go to its thread pool, whose workers wake late
  // and then spin, holding back the matcher's thread. Bands give the same pixels.
  const int band = std::max(1, kRemapBandPixels / cols);
  for (int view = 0; view < 2; ++view) {
    const std::size_t offset = view * halfBytes;
    const cv::Mat source(rows, cols, CV_8UC(channels), const_cast<uint8_t*>(views) + offset);
    cv::Mat target(rows, cols, CV_8UC(channels), rectified_->data + offset);
    for (int first = 0; first < rows; first += band) {
      const cv::Range bandRows(first, std::min(rows, first + band));
      cv::Mat targetBand = target.rowRange(bandRows);
      cv::remap(source, targetBand, map1[view].rowRange(bandRows), map2[view].rowRange(bandRows), cv::INTER_LINEAR,
                cv::BORDER_CONSTANT, cv::Scalar());
    }
  }
}

// With the engine mutex: the rectified pair to the first idle engine, or else
// to the busy one with the oldest latest time stamp.
void StereoDepth::handToEngine() {
  std::lock_guard<std::mutex> lock(engineMutex_);
  if (engines_.empty()) return;
  std::size_t chosen = 0;
  bool idleFound = false;
  for (std::size_t i = 0; i < engines_.size(); ++i) {
    if (!engines_[i]->isBusy()) {
      chosen = i;
      idleFound = true;
      break;
    }
  }
  if (!idleFound) {
    // The running minimum is kept in 32 bits and sign-extended for the
    // comparison, deliberately: engines are chosen as they always were.
    int32_t minimum = static_cast<int32_t>(engines_[0]->getLatestTimestamp());
    for (std::size_t i = 0; i < engines_.size(); ++i) {
      const uint64_t latest = engines_[i]->getLatestTimestamp();
      if (static_cast<uint64_t>(static_cast<int64_t>(minimum)) > latest) {
        minimum = static_cast<int32_t>(latest);
        chosen = i;
      }
    }
  }
  // Only this thread writes the rectified record, so it is read here unlocked.
  engines_[chosen]->feedImage(rectified_);
}

void StereoDepth::updateResult() {
  bool collected = false;
  while (running_.load() != 0) {
    // After a result, look again at once: another engine may be ready too.
    if (!collected) waitForEngineResult();
    // An exception must not end the host: the result is dropped, the thread goes on.
    try {
      collected = resultCycle();
    } catch (const std::exception& e) {
      collected = false;
      logErrorf("updateResult", "result dropped: %s\n", oneLine(e.what()).c_str());
    } catch (...) {
      collected = false;
      logError("updateResult", "result dropped: unknown exception");
    }
  }
}

// Sleeps until an engine announces a result or the pipeline stops. An
// announcement made while this thread was busy stays set, so none is missed.
void StereoDepth::waitForEngineResult() {
  std::unique_lock<std::mutex> lock(engineReadyMutex_);
  engineReadyCondition_.wait(lock, [this] { return engineReady_; });
  engineReady_ = false;
}

// One result, stage by stage. The result mutex is held twice: around the
// retrieval and filtering, and around the registration, the resizing and the
// dumps; the point cloud takes it itself in between.
bool StereoDepth::resultCycle() {
  std::unique_lock<std::mutex> engineLock(engineMutex_);
  StereoEngineBase* engine = pickReadyEngine();
  if (engine == nullptr) return false;
  {
    std::lock_guard<std::mutex> resultLock(resultMutex_);
    const bool collected = collectResult(*engine);
    engineLock.unlock();
    if (!collected) return true;
    markStage(Stage::kResultTaken);
    filterDepth();
    publishResult();
    markStage(Stage::kFiltered);
  }
  generatePointCloud();
  markStage(Stage::kCloudBuilt);
  std::unique_lock<std::mutex> resultLock(resultMutex_, std::defer_lock);
  const LumoDepthImage* output = alignWithColour(resultLock);
  if (output == nullptr) return true;
  restoreResultsSize(*output);
  dumpResult();
  resultLock.unlock();
  markStage(Stage::kOutputReady);
  resultCondition_.notify_all();
  return true;
}

// With the engine mutex: the ready engine with the oldest result, the lowest
// index winning a tie; null when none is ready.
StereoEngineBase* StereoDepth::pickReadyEngine() {
  StereoEngineBase* oldest = nullptr;
  uint64_t oldestTimestamp = 0;
  for (const auto& engine : engines_) {
    if (!engine->isResultReady()) continue;
    const uint64_t latest = engine->getLatestTimestamp();
    if (oldest == nullptr || latest < oldestTimestamp) oldest = engine.get(), oldestTimestamp = latest;
  }
  return oldest;
}

// With both mutexes: the engine's depth and disparity into the records, the
// depth record's header from the result's shape and the fed frame's tags.
bool StereoDepth::collectResult(StereoEngineBase& engine) {
  std::array<int, 4> dims{};
  unsigned long long timestamp = 0;
  if (engine.getResult(depth_->data, disparity_->data, dims, timestamp) == 1) {
    logError("updateResult", "get depth image failed");
    return false;
  }
  depth_->timestamp = timestamp;
  carryFrameTags(depth_);
  depth_->channels = static_cast<uint32_t>(dims[1]);
  depth_->height = static_cast<uint32_t>(dims[2]);
  depth_->width = static_cast<uint32_t>(dims[3]);
  depth_->size = static_cast<uint32_t>(dims[1] * dims[2] * dims[3] * 4);
  return true;
}

// With the result mutex: the spatial, then the temporal filter, in place.
void StereoDepth::filterDepth() {
  if (!enableFilter_) return;
  spatialFilter_->processFrame(depth_);
  temporalFilter_->processFrame(depth_);
}

// With the result mutex: the disparity record's header follows the depth's,
// and the result counts.
void StereoDepth::publishResult() {
  copyHeader(disparity_, depth_);
  ++depthResultCount_;
}

// Pairs the depth with its colour frame (under the ring's lock) and registers
// the two (under the result mutex, which it leaves locked). Returns the depth
// to hand out: the matched depth, or the depth registered into the other
// camera; null when there is nothing to hand out for this result.
const LumoDepthImage* StereoDepth::alignWithColour(std::unique_lock<std::mutex>& resultLock) {
  if (!alignEnabled_.load()) {
    resultLock.lock();
    return depth_;
  }
  if (!alignInitialized_.load()) {
    initAlignParam();
    if (!alignInitialized_.load()) return nullptr;
  }
  // Tolerances in the unit of the host's time stamps.
  if (syncAlignImages(500000000, 1000000) == 0) return nullptr;
  resultLock.lock();
  if (!alignDirection_) {
    if (alignImage_->alignOtherToDepth(*colourToDepth_, *depth_, *colourInput_) == 0) {
      copyRecord(alignedColour_, colourToDepth_);
    }
    return depth_;
  }
  if (alignImage_->alignDepthToOther(*depthToColour_, *depth_, *colourInput_) != 0) return depth_;
  // The registration writes pixels, size and time stamp; the host's tags and
  // the channel count still belong to the stereo frame.
  depthToColour_->tag0 = depth_->tag0;
  depthToColour_->tag1 = depth_->tag1;
  depthToColour_->format = depth_->format;
  depthToColour_->channels = depth_->channels;
  copyRecord(alignedColour_, colourInput_);
  return depthToColour_;
}

// With the result mutex: the disparity and the handed-out depth as matrix files.
void StereoDepth::dumpResult() {
  if (debugImage_ == 0) return;
  const DebugDump dump(debugImgSavePath_);
  const uint64_t stamp = depth_->timestamp;
  dump.matrix("disparity_", stamp, "disparity",
              cv::Mat(static_cast<int>(disparity_->height), static_cast<int>(disparity_->width), CV_32F,
                      disparity_->data));
  dump.matrix("depth_", stamp, "depth",
              cv::Mat(static_cast<int>(depthOutput_->height), static_cast<int>(depthOutput_->width), CV_32F,
                      depthOutput_->data));
}

void StereoDepth::carryFrameTags(LumoDepthImage* result) {
  // The engines hand back pixels and a time stamp only; the host's tags travel
  // with the frame kept in the stereo ring.
  std::lock_guard<std::mutex> lock(stereoRingMutex_);
  const uint64_t timestamp = result->timestamp;
  const LumoImage* frame = stereoRing_->findNewest([timestamp](const LumoImage& slot) { return slot.timestamp == timestamp; });
  if (frame == nullptr) return;
  result->tag0 = frame->tag0;
  result->tag1 = frame->tag1;
  result->format = frame->format;
}

// With the result mutex: `depth` into the output record, at the size the host
// expects (the aligned camera's, or the stereo camera's input or working size).
void StereoDepth::restoreResultsSize(const LumoDepthImage& depth) {
  copyRecord(depthOutput_, &depth);
  const std::vector<ImageSize>& sizes = restoreDepthDim_ != 0 ? inputSizes_ : scaledSizes_;
  const bool toColour = alignEnabled_.load() && alignDirection_;
  const std::size_t target = static_cast<std::size_t>(toColour ? alignedCamIndex_ : stereoCamIndex_);
  if (target >= sizes.size()) return;
  const int width = sizes[target].width;
  const int height = sizes[target].height;
  if (!alignEnabled_.load() && static_cast<int>(depthOutput_->width) == width) return;

  if (static_cast<int>(alignedColour_->width) != width && alignedColour_->width != 0) {
    const int type = alignedColour_->channels == 1 ? CV_8UC1 : CV_8UC3;
    const cv::Mat source(static_cast<int>(alignedColour_->height), static_cast<int>(alignedColour_->width), type,
                         alignedColour_->data);
    cv::Mat resized;
    cv::resize(source, resized, cv::Size(width, height), 0, 0, cv::INTER_LINEAR);
    std::memcpy(alignedColour_->data, resized.data, resized.total() * resized.elemSize());
    alignedColour_->width = static_cast<uint32_t>(width);
    alignedColour_->height = static_cast<uint32_t>(height);
    alignedColour_->size = static_cast<uint32_t>(width * height) * alignedColour_->channels;
  }

  if (static_cast<int>(depthOutput_->width) == width) return;
  // Nearest neighbour, so that no depth is invented between a surface and the background.
  const cv::Mat source(static_cast<int>(depthOutput_->height), static_cast<int>(depthOutput_->width), CV_32F,
                       depthOutput_->data, depthOutput_->stride);
  cv::Mat resized;
  cv::resize(source, resized, cv::Size(width, height), 0, 0, cv::INTER_NEAREST);
  std::memcpy(depthOutput_->data, resized.data, resized.total() * sizeof(float));
  depthOutput_->width = static_cast<uint32_t>(width);
  depthOutput_->height = static_cast<uint32_t>(height);
  depthOutput_->stride = static_cast<uint32_t>(width * sizeof(float));
  depthOutput_->size = static_cast<uint32_t>(resized.total() * sizeof(float));
}

int StereoDepth::getDepthImage(LumoDepthImage* depth, LumoDepthImage* disparity, LumoImage* aligned) {
  if (depth == nullptr || depth->data == nullptr) {
    logError("getDepthImage", "allocate memory before calling");
    return 1;
  }
  std::lock_guard<std::mutex> lock(resultMutex_);
  if (depthOutput_->width == 0) return 1;
  if (alignEnabled_.load() && aligned != nullptr) copyRecord(aligned, alignedColour_);
  copyRecord(depth, depthOutput_);
  if (disparity != nullptr) copyRecord(disparity, disparity_);
  return depthResultCount_ < 1 ? 1 : 0;
}

int StereoDepth::getRectifyImage(LumoImage* out) {
  if (out == nullptr || out->data == nullptr) {
    logError("getRectifyImage", "allocate memory before calling");
    return 1;
  }
  std::lock_guard<std::mutex> lock(rectifyMutex_);
  if (rectified_->timestamp == 0) return 1;
  out->tag0 = rectified_->tag0;
  out->tag1 = rectified_->tag1;
  out->timestamp = rectified_->timestamp;
  out->width = rectified_->width;
  out->height = rectified_->height;
  out->channels = 3;
  out->format = rectified_->format;
  out->stride = rectified_->stride;
  out->size = rectified_->width * rectified_->height * 3;
  const int rows = static_cast<int>(rectified_->height);
  const int cols = static_cast<int>(rectified_->width);
  cv::Mat destination(rows, cols, CV_8UC3, out->data);
  if (rectified_->channels == 1) {
    cv::cvtColor(cv::Mat(rows, cols, CV_8UC1, rectified_->data), destination, cv::COLOR_GRAY2BGR);
  } else {
    cv::cvtColor(cv::Mat(rows, cols, CV_8UC3, rectified_->data), destination, cv::COLOR_BGR2RGB);
  }
  out->format = 0;
  return 0;
}

}  // namespace KorvLumetra
