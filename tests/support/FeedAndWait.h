// A synchronous feed gives up after about 2 s. A slow build (a sanitizer on a
// loaded machine) can need longer for the same frame: its depth is then
// awaited here, so that tests check results, not the machine's speed.
#pragma once

#include <chrono>
#include <thread>
#include <vector>

#include "lumetra_depth.h"

namespace LumoTest {

// 0 when the frame's depth came out, within two minutes.
inline int feedAndWait(void* handle, LumoImage* frame) {
  if (KORV_LUMO_D_FeedStereoImage(handle, frame) == 0) return 0;
  thread_local std::vector<float> scratch(1920 * 1080 * 2);  // room for any output of the tests
  LumoDepthImage depth{};
  depth.data = scratch.data();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (std::chrono::steady_clock::now() < deadline) {
    if (KORV_LUMO_D_GetDepthImage(handle, &depth, nullptr, nullptr) == 0 && depth.timestamp == frame->timestamp) {
      return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return 1;
}

}  // namespace LumoTest
