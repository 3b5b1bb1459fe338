/* The public header must compile as C, and the unmangled functions must be
 * callable from it. */
#include <stddef.h>

#include "lumetra_depth.h"

/* Sizes and offsets as a C compiler lays the records out, in the C++ test's order. */
size_t lumo_c_layout(size_t* out) {
  const size_t layout[] = {
      sizeof(LumoImage), offsetof(LumoImage, timestamp), offsetof(LumoImage, format), offsetof(LumoImage, stride),
      offsetof(LumoImage, data), sizeof(LumoDepthImage), offsetof(LumoDepthImage, data), sizeof(LumoPose),
      offsetof(LumoPose, orientation), sizeof(LumoMap), offsetof(LumoMap, num), offsetof(LumoMap, points),
      sizeof(LumoRectifyInfo), offsetof(LumoRectifyInfo, P2), sizeof(LumoIntrinsics),
      offsetof(LumoIntrinsics, distortion_model), offsetof(LumoIntrinsics, distortion_coeffs),
      sizeof(LumoExtrinsics), sizeof(LumoCameraCalib), offsetof(LumoCameraCalib, T_cn_imu),
      offsetof(LumoCameraCalib, timeshift), sizeof(LumoCalibrationParam),
      offsetof(LumoCalibrationParam, accel_noise_density), offsetof(LumoCalibrationParam, imu_update_rate)};
  size_t n;
  for (n = 0; n < sizeof(layout) / sizeof(layout[0]); ++n) out[n] = layout[n];
  return n;
}

/* Every function with a null handle: each must answer 1. Returns how many did. */
int lumo_c_null_handle_answers(void) {
  LumoImage image = {0};
  LumoDepthImage depth = {0};
  LumoPose pose = {0};
  LumoMap map = {0};
  LumoRectifyInfo info = {0};
  return (KORV_LUMO_D_DestroyHandle(NULL) == 1) + (KORV_LUMO_D_FeedStereoImage(NULL, &image) == 1) +
         (KORV_LUMO_D_FeedRGBImage(NULL, &image) == 1) + (KORV_LUMO_D_FeedPose(NULL, &pose) == 1) +
         (KORV_LUMO_D_GetDepthImage(NULL, &depth, NULL, NULL) == 1) +
         (KORV_LUMO_D_GetRectifiedImage(NULL, &image) == 1) + (KORV_LUMO_D_GetRectifyInfo(NULL, &info) == 1) +
         (KORV_LUMO_D_GetPointcloud(NULL, &map, 10) == 1) + (KORV_LUMO_D_BindNavra(NULL, &map) == 1);
}
