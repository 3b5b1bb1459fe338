#include "api/DebugDump.h"

#include <cstdio>

#include <opencv2/imgcodecs.hpp>

#include "api/ErrorLog.h"

namespace KorvLumetra {

std::string DebugDump::path(const char* what, uint64_t timestamp, const char* extension) const {
  return directory_ + "/debug_" + what + formatTimestamp(timestamp) + extension;
}

void DebugDump::image(const char* what, uint64_t timestamp, const cv::Mat& image) const {
  try {
    cv::imwrite(path(what, timestamp, ".bmp"), image);
  } catch (const cv::Exception&) {
  }
}

void DebugDump::matrix(const char* what, uint64_t timestamp, const char* key, const cv::Mat& matrix) const {
  try {
    cv::FileStorage file(path(what, timestamp, ".yml"), cv::FileStorage::WRITE);
    if (file.isOpened()) file << key << matrix;
  } catch (const cv::Exception&) {
  }
}

void DebugDump::pointCloud(uint64_t timestamp, const float* points, unsigned int count) const {
  FILE* file = std::fopen(path("pointcloud_", timestamp, ".pcd").c_str(), "w");
  if (file == nullptr) return;
  std::fprintf(file, "# .PCD v0.7 - Point Cloud Data file format\n");
  std::fprintf(file, "VERSION 0.7\nFIELDS x y z\nSIZE 4 4 4\nTYPE F F F\nCOUNT 1 1 1\n");
  std::fprintf(file, "WIDTH %u\nHEIGHT 1\nVIEWPOINT 0 0 0 1 0 0 0\nPOINTS %u\nDATA ascii\n", count, count);
  for (unsigned int i = 0; i < count; ++i) {
    const float* p = points + 3 * static_cast<std::size_t>(i);
    std::fprintf(file, "%f %f %f\n", p[0], p[1], p[2]);
  }
  std::fclose(file);
}

}  // namespace KorvLumetra
