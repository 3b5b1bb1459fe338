/* The public header must compile as C (with its checks of the record
 * layouts), and the unmangled functions must be callable from it. */
#include <stddef.h>

#include "lumetra_depth.h"

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
