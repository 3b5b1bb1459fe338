// The object behind a depth handle: settings, calibration, fixed-capacity
// buffers, frame rings, stereo engines and the two pipeline threads.
//
// Threads: host threads call the feeds and getters; the preprocessing thread
// ("KorvDepthPre") rectifies and hands frames to the engines; the result thread
// collects engine results. Locks (never held across matching):
//   frameMutex_      incoming/working stereo records, new-frame flag
//   rectifyMutex_    rectified image record
//   resultMutex_     depth, disparity, output and alignment records, point cloud
//   engineMutex_     the engine list (taken before resultMutex_ when both are held)
//   stereoRingMutex_ / colourRingMutex_ / poseMutex_  the rings, before the ring's own
// Configuration (initFromYaml, calibration imports) runs before frames are fed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "align/AlignImage.h"
#include "camera/CalibrationReport.h"
#include "camera/ImageSize.h"
#include "camera/LumoCam.h"
#include "camera/StereoCalibration.h"
#include "engine/StereoEngineBase.h"
#include "filters/KesTemporalFilter.h"
#include "filters/VorSpatialFilter.h"
#include "lumetra_depth.h"
#include "pipeline/LumoImageRing.h"
#include "pipeline/VoxelTable.h"

namespace KorvLumetra {

// Fixed capacities of the pipeline's buffers, in bytes.
constexpr std::size_t kStereoBufferBytes = 6144000;    // 1280 x 800 x 3 x 2
constexpr std::size_t kRingSlotBytes = 24883200;       // 3840 x 2160 x 3
constexpr std::size_t kDepthBufferBytes = 32768000;
constexpr std::size_t kColourBufferBytes = 24883200;
constexpr std::size_t kOutputBufferBytes = 132710400;
constexpr uint64_t kStereoRingSlots = 20;
constexpr uint64_t kColourRingSlots = 10;
constexpr uint64_t kPoseRingSlots = 200;
constexpr std::size_t kAuxCamIndex = 2;  // left, right, auxiliary in the per-camera tables
// Bounds of settings beyond which no configuration makes sense.
constexpr float kMaxScaling = 16.0f;
constexpr int kMaxThreads = 64;
constexpr uint32_t kMaxFrameSide = 65535;  // colour frames are resized from any size up to this

class StereoDepth {
 public:
  StereoDepth();
  ~StereoDepth();
  StereoDepth(const StereoDepth&) = delete;
  StereoDepth& operator=(const StereoDepth&) = delete;

  // Configuration (relative paths resolved against the file's directory). A
  // configuration whose settings are refused leaves a pipeline that refuses
  // frames and calibrations for the rest of its life.
  int initFromYaml(const std::string& path);
  // Calibration from the tracker's record: dumps it to stdout, rebuilds maps,
  // the depth table and the engines.
  int initCameraFromCalib(const LumoCalibrationParam& calib);
  // Calibration from a camera-chain YAML file.
  int initCameraFromCalibYaml(const std::string& path);
  int initRectifyMap();
  int getRectifyInfo(LumoRectifyInfo* info);
  static int flatten2DCvMat(const cv::Mat& m, float* out);
  void LUTDepthGenerator();

  int feedStereoImage(LumoImage* frame);
  int getDepthImage(LumoDepthImage* depth, LumoDepthImage* disparity, LumoImage* aligned);
  int getRectifyImage(LumoImage* out);
  int setDepthAlignedInfo(int cameraIndex, bool direction, bool enabled);

  // Auxiliary (colour) camera frames, queued for alignment with depth.
  int feedRGBImage(LumoImage* image);
  // Builds the registration from the calibration once an engine exists.
  int initAlignParam();
  // Moves the queued frame matching the current depth into the colour input
  // record: 1 when one was found, 0 otherwise.
  int syncAlignImages(int auxTolerance, int stereoTolerance);

  // Point clouds and coordinates.
  int feedPose(LumoPose* pose);
  unsigned int getPointcloud(LumoMap* map, int maxPoints);
  // pixels: `count` (column, row) pairs of `depth`; coordinates: 3 floats each.
  unsigned int getCoordinates2Ext(const int* pixels, int count, const LumoDepthImage* depth, float* coordinates);
  // Per-pixel rays of the depth image within the region of interest.
  unsigned int initPointcloudLUT();
  // The cloud of the current depth result (result thread).
  void generatePointCloud();

  // Engines are normally created by the configuration step; exposed so the
  // pipeline can be driven with engines of the caller's choosing.
  void addEngine(std::unique_ptr<StereoEngineBase> engine);
  std::size_t engineCount();

 private:
  friend struct StereoDepthTestAccess;  // tests inspect calibration and buffers

  void stopThreads();
  void freeBuffers();
  // The preprocessing thread's stages.
  void preprocessLoop();
  LumoImage* takeFrame();
  bool toEngineChannels(const LumoImage& frame);
  void rectifyViews(const LumoImage& frame);
  void handToEngine();
  // The result thread's stages.
  void updateResult();
  void waitForEngineResult();
  bool resultCycle();
  StereoEngineBase* pickReadyEngine();
  bool collectResult(StereoEngineBase& engine);
  void filterDepth();
  void publishResult();
  const LumoDepthImage* alignWithColour(std::unique_lock<std::mutex>& resultLock);
  void restoreResultsSize(const LumoDepthImage& depth);
  void dumpResult();
  void carryFrameTags(LumoDepthImage* result);
  bool depthOfFrameReady(uint64_t timestamp);  // with resultMutex_ held
  void recreateEngines();
  void adoptEngine(std::unique_ptr<StereoEngineBase> engine);
  bool sizesFitBuffers();
  std::string settingsProblem() const;
  bool alignCameraMissing(const char* function);
  StereoCalibration::Setup calibrationSetup() const;
  // 0 or 1 for the caller; a fatal outcome ends the process here, on purpose.
  static int finishImport(ImportStatus status);
  // Refuses work for a refused configuration, with the caller's name.
  bool refusedConfiguration(const char* function);

  // Switches and paths.
  int moduleEnabled_ = 1;  // an unconfigured pipeline counts as enabled
  int restoreDepthDim_ = 1;
  int debugImage_ = 0;
  std::string debugImgSavePath_;
  int threadNum_ = 1;
  int asyncMode_ = 1;
  bool enableFilter_ = true;
  bool filterReserved_ = false;
  std::string modelPath_;
  std::string calibPath_;
  int inputStereoWidth_ = 0;
  int inputStereoHeight_ = 0;
  float stereoImgScaling_ = 1.0f;
  int inputAuxCamWidth_ = 1920;
  int inputAuxCamHeight_ = 1080;
  float auxCamScaling_ = 1.0f;
  int alignCamId_ = -1;
  bool alignDirectionSetting_ = false;
  bool wlsFilter_ = false;
  int depthMode_ = 0;
  float engineParam_ = 0.12f;
  // Point-cloud settings.
  float voxelSize_ = 0.005f;
  float minPoints_ = 1.0f;
  float cloudReserved0_ = 0.0f;
  float pointcloudROI_ = 1.0f;
  float depthImageScale_ = 1.0f;
  float cloudReserved1_ = 0.0f;
  float farthestDist_ = 3.0f;
  float cloestDist_ = 0.0f;
  bool enableVoxel_ = false;
  int pointcloudType_ = 0;
  int skipPoint_ = 0;
  int stereoCamIndex_ = 0;
  int depthResultCount_ = 0;  // guarded by resultMutex_
  std::atomic<bool> configRefused_{false};

  // Frame hand-off.
  std::mutex frameMutex_;
  std::condition_variable frameCondition_;
  std::atomic<uint8_t> newFrame_{0};  // a fed frame not yet taken; written under frameMutex_
  std::atomic<uint8_t> running_{1};
  LumoImage* incomingStereo_ = nullptr;
  LumoImage* workingStereo_ = nullptr;

  // Per-camera tables (left, right, auxiliary) and the calibration.
  std::vector<ImageSize> inputSizes_;
  std::vector<ImageSize> scaledSizes_;
  std::vector<float> scaleRatios_;
  StereoCalibration calibration_;
  std::mutex rectifyMutex_;
  LumoImage* rectified_ = nullptr;
  LumoImage* unrectifiedViews_ = nullptr;  // colour views in the engine's channel order, before rectification

  // Engines.
  std::mutex engineMutex_;
  std::vector<std::unique_ptr<StereoEngineBase>> engines_;
  std::mutex engineReadyMutex_;
  std::condition_variable engineReadyCondition_;  // an engine has a result (the result thread waits)
  bool engineReady_ = false;                      // with engineReadyMutex_

  // Results.
  std::mutex resultMutex_;
  std::condition_variable resultCondition_;  // a new output is ready (synchronous feeds wait)
  LumoDepthImage* depth_ = nullptr;
  LumoDepthImage* disparity_ = nullptr;
  LumoDepthImage* depthOutput_ = nullptr;
  LumoImage* alignedColour_ = nullptr;
  LumoImage* colourInput_ = nullptr;
  LumoImage* colourToDepth_ = nullptr;
  LumoDepthImage* depthToColour_ = nullptr;

  // Depth filters, run on the result thread.
  std::unique_ptr<KesTemporalFilter> temporalFilter_;
  std::unique_ptr<VorSpatialFilter> spatialFilter_;

  // Point cloud (the cloud itself guarded by resultMutex_).
  float* rayTable_ = nullptr;     // 3 floats per depth pixel, freed with free()
  float* pointBuffer_ = nullptr;  // 3 floats per point, room for one per pixel
  uint64_t cloudPixelCount_ = 0;  // entries of both arrays
  int pointCount_ = 0;
  uint64_t cloudTimestamp_ = 0;
  VoxelTable voxelTable_;

  // Alignment settings and state.
  int alignedCamIndex_ = -1;
  bool alignDirection_ = false;
  std::atomic<bool> alignEnabled_{false};
  std::atomic<bool> alignInitialized_{false};
  std::unique_ptr<AlignImage> alignImage_;  // used by the result thread only

  // Rings.
  std::mutex stereoRingMutex_;
  std::unique_ptr<LumoUtils::LumoImageRing> stereoRing_;
  std::mutex colourRingMutex_;
  std::unique_ptr<LumoUtils::LumoImageRing> colourRing_;
  std::mutex poseMutex_;
  std::unique_ptr<LumoUtils::LumoPoseRing> poseRing_;

  // Threads, started last among the members they use.
  std::thread preprocessThread_;
  std::thread resultThread_;
};

}  // namespace KorvLumetra
