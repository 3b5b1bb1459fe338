// The debug files of a pipeline and its engines, written when `debug_image`
// is on: images as BMP, matrices as OpenCV YAML files, clouds as ASCII PCD,
// each named directory + "/debug_" + what + frame time stamp + extension.
// A file that cannot be written is skipped: a dump never fails a frame.
//
// Stateless apart from the directory; any thread may write.
#pragma once

#include <cstdint>
#include <string>

#include <opencv2/core.hpp>

namespace KorvLumetra {

class DebugDump {
 public:
  DebugDump() = default;
  explicit DebugDump(std::string directory) : directory_(std::move(directory)) {}

  // directory + "/debug_" + what + time stamp ("%llu") + extension.
  std::string path(const char* what, uint64_t timestamp, const char* extension) const;

  void image(const char* what, uint64_t timestamp, const cv::Mat& image) const;  // .bmp
  void matrix(const char* what, uint64_t timestamp, const char* key, const cv::Mat& matrix) const;  // .yml
  void pointCloud(uint64_t timestamp, const float* points, unsigned int count) const;  // "pointcloud_", .pcd

  const std::string& directory() const { return directory_; }

 private:
  std::string directory_;
};

}  // namespace KorvLumetra
