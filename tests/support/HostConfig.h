// A configuration file with every key, quiet defaults (no alignment, filters
// or debug output), and per-test overrides; a handle made from such a file,
// and a depth buffer for what it hands out.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/TempDir.h"

namespace LumoTest {

class HostConfig {
 public:
  HostConfig() {
    entries_ = {{"enable_module", "1"},          {"model_path", "\"\""},
                {"calib_path", "calib.yaml"},    {"input_stereo_width", "640"},
                {"input_stereo_height", "400"},  {"stereo_img_scaling", "1.0"},
                {"input_aux_cam_width", "1920"}, {"input_aux_cam_height", "1080"},
                {"aux_cam_scaling", "1.0"},      {"thread_num", "1"},
                {"async_mode", "0"},             {"align_cam_id", "-1"},
                {"align_direction", "false"},    {"enable_filter", "false"},
                {"wls_filter", "false"},         {"depth_mode", "0"},
                {"enable_voxel", "false"},       {"voxelSize", "0.01"},
                {"minPoints", "1"},              {"pointcloud_type", "0"},
                {"pointcloud_ROI", "1.0"},       {"skip_point", "0"},
                {"farthest_dist", "10"},         {"cloest_dist", "0.1"},
                {"restore_depth_dim", "1"},      {"debug_image", "0"},
                {"debug_img_save_path", "/tmp"}};
  }

  // Replaces a key's value (an empty value writes "key:" with nothing after it).
  HostConfig& set(const std::string& key, const std::string& value) {
    for (auto& entry : entries_) {
      if (entry.first == key) {
        entry.second = value;
        return *this;
      }
    }
    entries_.emplace_back(key, value);
    return *this;
  }

  HostConfig& remove(const std::string& key) {
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if (it->first == key) {
        entries_.erase(it);
        break;
      }
    }
    return *this;
  }

  std::string text() const {
    std::string out;
    for (const auto& entry : entries_) {
      out += entry.first + ":";
      if (!entry.second.empty()) out += " " + entry.second;
      out += "\n";
    }
    return out;
  }

  void write(const std::string& path) const { writeText(path, text()); }

 private:
  std::vector<std::pair<std::string, std::string>> entries_;
};

// A handle created from a configuration file (what creation printed is kept),
// destroyed with the object: always with 0, whatever the handle was refused.
struct Handle {
  explicit Handle(const std::string& config) {
    printed = captureStdout([&] { status = KORV_LUMO_D_CreateHandleWithConfig(&handle, config.c_str()); });
  }
  ~Handle() { EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  operator void*() const { return handle; }

  void* handle = nullptr;
  int status = -1;
  std::string printed;
};

// Room for a depth or disparity image of `pixels` pixels, filled with `fill`.
struct DepthBuffer {
  explicit DepthBuffer(std::size_t pixels = 640 * 400, float fill = -1.0f) : data(pixels, fill) {
    record.data = data.data();
  }
  std::vector<float> data;
  LumoDepthImage record{};
};

}  // namespace LumoTest
