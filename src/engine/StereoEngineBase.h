// The interface through which the pipeline feeds stereo frames to a matcher
// and collects its results. Implementations run their own worker thread; the
// status queries may be called from any thread without a lock.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <utility>

#include "lumetra_depth.h"

namespace KorvLumetra {

class StereoEngineBase {
 public:
  virtual ~StereoEngineBase() = default;
  // Time stamp of the last frame whose result was produced.
  virtual uint64_t getLatestTimestamp() const = 0;
  // The worker is processing a frame.
  virtual bool isBusy() const = 0;
  // A result is waiting to be collected by getResult.
  virtual bool isResultReady() const = 0;
  // Copies the waiting result: height * width floats into each of depth and
  // disparity; shape = {batch, channels, rows, columns}. 0 on success, 1 when
  // nothing is ready or an array is missing.
  virtual int getResult(float* depth, float* disparity, std::array<int, 4>& shape,
                        unsigned long long& timestamp) = 0;
  // Stages a stacked, rectified, 3-channel frame (left view on top) for the
  // worker; a frame staged while the worker is busy replaces the one before it.
  virtual int feedImage(LumoImage* image) = 0;
  virtual int getImageScale(float* scale) const = 0;
  virtual bool isInitialized() const = 0;

  // Called each time a result becomes ready: the collector sleeps until then,
  // so an engine must announce every result. Set before the first frame is fed.
  void setResultListener(std::function<void()> listener) { resultListener_ = std::move(listener); }

 protected:
  void announceResult() const {
    if (resultListener_) resultListener_();
  }

 private:
  std::function<void()> resultListener_;
};

}  // namespace KorvLumetra
