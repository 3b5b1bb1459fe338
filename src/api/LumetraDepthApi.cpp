// The exported functions: thin forwarders to the pipeline. The unmangled C
// symbols call their namespaced twins.
#include <dlfcn.h>

#include "api/ErrorLog.h"
#include "api/LumetraDepthHandle.h"
#include "lumetra_depth.h"

namespace KorvLumetra {

namespace {

StereoDepth* pipelineOf(void* handle) { return static_cast<LumetraDepthHandle*>(handle)->depth; }

// A handle whose pipeline could not be made (no memory) answers 1 like a null one.
bool noPipeline(void* handle) { return handle == nullptr || pipelineOf(handle) == nullptr; }

// The tracker library is optional: its calibration getter is looked up at run
// time, so the library loads in processes that do not have it.
using GetCalibrationParam = int (*)(void*, LumoCalibrationParam*);
GetCalibrationParam trackerCalibrationGetter() {
  return reinterpret_cast<GetCalibrationParam>(dlsym(RTLD_DEFAULT, "KORV_NVRA_GetCalibrationParam"));
}

}  // namespace

int KORV_LUMO_D_CreateHandleWithConfig(void** handle, const char* configPath) {
  if (handle == nullptr) return 1;  // nowhere to put it: nothing is created
  auto* created = new LumetraDepthHandle();
  *handle = created;
  return created->Initialize(configPath);
}

int KORV_LUMO_D_DestroyHandle(void* handle) {
  if (handle == nullptr) return 1;
  delete static_cast<LumetraDepthHandle*>(handle);
  return 0;
}

int KORV_LUMO_D_FeedStereoImage(void* handle, LumoImage* frame) {
  if (noPipeline(handle)) return 1;
  return pipelineOf(handle)->feedStereoImage(frame);
}

int KORV_LUMO_D_FeedRGBImage(void* handle, LumoImage* frame) {
  if (noPipeline(handle)) return 1;
  return pipelineOf(handle)->feedRGBImage(frame);
}

int KORV_LUMO_D_FeedPose(void* handle, LumoPose* pose) {
  if (noPipeline(handle)) return 1;
  return pipelineOf(handle)->feedPose(pose);
}

int KORV_LUMO_D_GetDepthImage(void* handle, LumoDepthImage* depth, LumoDepthImage* disparity, LumoImage* aligned) {
  if (noPipeline(handle)) return 1;
  return pipelineOf(handle)->getDepthImage(depth, disparity, aligned);
}

int KORV_LUMO_D_GetRectifiedImage(void* handle, LumoImage* out) {
  if (noPipeline(handle)) return 1;
  return pipelineOf(handle)->getRectifyImage(out);
}

int KORV_LUMO_D_GetRectifyInfo(void* handle, LumoRectifyInfo* info) {
  if (noPipeline(handle)) return 1;
  return pipelineOf(handle)->getRectifyInfo(info);
}

int KORV_LUMO_D_GetPointcloud(void* handle, LumoMap* map, int maxPoints) {
  if (noPipeline(handle)) return 1;
  return static_cast<int>(pipelineOf(handle)->getPointcloud(map, maxPoints));
}

int KORV_LUMO_D_BindNavra(void* handle, void* navraHandle) {
  if (noPipeline(handle) || navraHandle == nullptr) return 1;
  LumoCalibrationParam param{};
  const GetCalibrationParam getter = trackerCalibrationGetter();
  if (getter == nullptr || getter(navraHandle, &param) != 0) {
    logError("KORV_LUMO_D_BindNavra", "Failed to get calib from Navra handle");
    return 1;
  }
  return pipelineOf(handle)->initCameraFromCalib(param);
}

int KORV_LUMO_D_GetCoordinates(void* handle, const int* pixels, int count, const LumoDepthImage* depth, float* out) {
  if (noPipeline(handle)) return 1;
  return static_cast<int>(pipelineOf(handle)->getCoordinates2Ext(pixels, count, depth, out));
}

}  // namespace KorvLumetra

extern "C" {

int KORV_LUMO_D_CreateHandleWithConfig(void** handle, const char* configPath) {
  return KorvLumetra::KORV_LUMO_D_CreateHandleWithConfig(handle, configPath);
}
int KORV_LUMO_D_DestroyHandle(void* handle) { return KorvLumetra::KORV_LUMO_D_DestroyHandle(handle); }
int KORV_LUMO_D_FeedStereoImage(void* handle, LumoImage* frame) {
  return KorvLumetra::KORV_LUMO_D_FeedStereoImage(handle, frame);
}
int KORV_LUMO_D_FeedRGBImage(void* handle, LumoImage* frame) {
  return KorvLumetra::KORV_LUMO_D_FeedRGBImage(handle, frame);
}
int KORV_LUMO_D_FeedPose(void* handle, LumoPose* pose) { return KorvLumetra::KORV_LUMO_D_FeedPose(handle, pose); }
int KORV_LUMO_D_GetDepthImage(void* handle, LumoDepthImage* depth, LumoDepthImage* disparity, LumoImage* aligned) {
  return KorvLumetra::KORV_LUMO_D_GetDepthImage(handle, depth, disparity, aligned);
}
int KORV_LUMO_D_GetRectifiedImage(void* handle, LumoImage* out) {
  return KorvLumetra::KORV_LUMO_D_GetRectifiedImage(handle, out);
}
int KORV_LUMO_D_GetRectifyInfo(void* handle, LumoRectifyInfo* info) {
  return KorvLumetra::KORV_LUMO_D_GetRectifyInfo(handle, info);
}
int KORV_LUMO_D_GetPointcloud(void* handle, LumoMap* map, int maxPoints) {
  return KorvLumetra::KORV_LUMO_D_GetPointcloud(handle, map, maxPoints);
}
int KORV_LUMO_D_BindNavra(void* handle, void* navraHandle) {
  return KorvLumetra::KORV_LUMO_D_BindNavra(handle, navraHandle);
}

}  // extern "C"
