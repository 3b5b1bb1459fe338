// Semi-global block matching engine with its own worker thread
// ("KorvDepthInfer").
//
// Threads: feedImage from the pipeline's preprocessing thread, getResult from
// its result thread, the status queries from anywhere. The input mutex guards
// the staging frame and the new-input flag; the result mutex guards the two
// result records. The worker never holds both, and never holds either while
// matching.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

#include "engine/StereoEngineBase.h"

namespace KorvLumetra {

class StereoCVEngine : public StereoEngineBase {
 public:
  struct MatcherSettings {
    int blockSize;
    int minDisparity;
    int numDisparities;
    int debug;
  };

  // The matching block's side, in pixels.
  static constexpr int kBlockSize = 11;

  StereoCVEngine(int width, int height, int channels, float depthFactorA, float depthFactorB,
                 float imageScale, int debugFlag, std::string debugDir, bool useWls);
  ~StereoCVEngine() override;
  StereoCVEngine(const StereoCVEngine&) = delete;
  StereoCVEngine& operator=(const StereoCVEngine&) = delete;

  uint64_t getLatestTimestamp() const override { return latestTimestamp_.load(); }
  bool isBusy() const override { return busy_.load() != 0; }
  bool isResultReady() const override { return resultReady_.load(); }
  int getResult(float* depth, float* disparity, std::array<int, 4>& shape,
                unsigned long long& timestamp) override;
  int feedImage(LumoImage* image) override;
  int getImageScale(float* scale) const override;
  bool isInitialized() const override { return initialized_.load(); }

  const MatcherSettings& matcherSettings() const { return settings_; }
  // Frames the worker dropped on an exception, each with an error line.
  uint64_t droppedFrames() const { return droppedFrames_.load(); }

  // Disparity search range for a view width and scale: about a tenth of the
  // scaled width, at least 16, capped at 64 below half scale and 128 above.
  static int numberOfDisparities(int width, float imageScale);

  int setInputImageSize(int width, int height, int channels);
  // Matches the grey views into `disparity` (pixels) and `raw` (fixed point).
  int computeDisparity(cv::Mat& disparity, cv::Mat& raw);
  void WLSFilterDisparity(const cv::Mat& raw, cv::Mat& filtered);
  // Depth = k / d with k = factorB * factorA * scale; 0 where d <= 0.01, d at
  // or beyond the search range, or depth beyond 12 units.
  int disparity2Depth(const LumoDepthImage* disparity, LumoDepthImage* depth);

  // Grey views as the worker prepares them; exposed for tests that drive the
  // matching stages directly.
  cv::Mat& leftGray() { return leftGray_; }
  cv::Mat& rightGray() { return rightGray_; }

 private:
  void createBuffer();
  void destroyBuffer();
  void inferLoop();
  // One frame: grey views, matching, depth; the result records under their lock.
  void matchFrame(const LumoImage* frame);

  std::thread worker_;
  std::atomic<int> stop_{0};
  std::atomic<int> busy_{0};
  std::atomic<bool> newInput_{false};
  std::condition_variable inputCondition_;
  LumoImage* workingFrame_ = nullptr;  // read by the worker
  LumoImage* stagingFrame_ = nullptr;  // written by feedImage
  std::mutex inputMutex_;
  std::atomic<uint64_t> latestTimestamp_{0};
  std::atomic<bool> resultReady_{false};
  std::atomic<uint64_t> droppedFrames_{0};
  std::array<int, 4> shape_{{1, 1, 0, 0}};
  std::mutex resultMutex_;
  int width_ = 0;
  int height_ = 0;
  int channels_ = 0;
  float depthFactorA_ = 0.0f;
  float depthFactorB_ = 0.0f;
  float imageScale_ = 1.0f;
  std::atomic<bool> initialized_{false};
  LumoDepthImage* disparityResult_ = nullptr;
  LumoDepthImage* depthResult_ = nullptr;
  cv::Mat leftScaled_, rightScaled_;  // colour views at the working size, kept between frames
  cv::Mat leftGray_;
  cv::Mat rightGray_;
  cv::Mat rawDisparity_;
  cv::Mat disparity_;
  cv::Mat wlsDisparity_;
  cv::Ptr<cv::StereoSGBM> matcher_;
  MatcherSettings settings_{};
  std::string debugDir_;
  bool useWls_ = false;
  std::size_t inputCapacity_ = 0;   // bytes of each input frame buffer
  std::size_t resultCapacity_ = 0;  // floats of each result buffer
};

}  // namespace KorvLumetra
