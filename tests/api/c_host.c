/* A C translation unit: the public header must compile as C, and the
 * unmangled functions must be callable from it. */
#include <stddef.h>

#include "lumetra_depth.h"

#define FIELD(record, field) offsetof(record, field)

/* Sizes and offsets as a C compiler lays the records out, in the order the
 * C++ test expects them. */
size_t lumo_c_layout(size_t* out) {
  size_t n = 0;
  out[n++] = sizeof(LumoImage);
  out[n++] = FIELD(LumoImage, timestamp);
  out[n++] = FIELD(LumoImage, format);
  out[n++] = FIELD(LumoImage, stride);
  out[n++] = FIELD(LumoImage, data);
  out[n++] = sizeof(LumoDepthImage);
  out[n++] = FIELD(LumoDepthImage, data);
  out[n++] = sizeof(LumoPose);
  out[n++] = FIELD(LumoPose, orientation);
  out[n++] = sizeof(LumoMap);
  out[n++] = FIELD(LumoMap, num);
  out[n++] = FIELD(LumoMap, points);
  out[n++] = sizeof(LumoRectifyInfo);
  out[n++] = FIELD(LumoRectifyInfo, P2);
  out[n++] = sizeof(LumoIntrinsics);
  out[n++] = FIELD(LumoIntrinsics, distortion_model);
  out[n++] = FIELD(LumoIntrinsics, distortion_coeffs);
  out[n++] = sizeof(LumoExtrinsics);
  out[n++] = sizeof(LumoCameraCalib);
  out[n++] = FIELD(LumoCameraCalib, T_cn_imu);
  out[n++] = FIELD(LumoCameraCalib, timeshift);
  out[n++] = sizeof(LumoCalibrationParam);
  out[n++] = FIELD(LumoCalibrationParam, accel_noise_density);
  out[n++] = FIELD(LumoCalibrationParam, imu_update_rate);
  return n;
}

/* Every function with a null handle: each must answer 1. Returns how many did. */
int lumo_c_null_handle_answers(void) {
  LumoImage image = {0};
  LumoDepthImage depth = {0};
  LumoPose pose = {0};
  LumoMap map = {0};
  LumoRectifyInfo info = {0};
  int ones = 0;
  ones += KORV_LUMO_D_DestroyHandle(NULL) == 1;
  ones += KORV_LUMO_D_FeedStereoImage(NULL, &image) == 1;
  ones += KORV_LUMO_D_FeedRGBImage(NULL, &image) == 1;
  ones += KORV_LUMO_D_FeedPose(NULL, &pose) == 1;
  ones += KORV_LUMO_D_GetDepthImage(NULL, &depth, NULL, NULL) == 1;
  ones += KORV_LUMO_D_GetRectifiedImage(NULL, &image) == 1;
  ones += KORV_LUMO_D_GetRectifyInfo(NULL, &info) == 1;
  ones += KORV_LUMO_D_GetPointcloud(NULL, &map, 10) == 1;
  ones += KORV_LUMO_D_BindNavra(NULL, &map) == 1;
  return ones;
}
