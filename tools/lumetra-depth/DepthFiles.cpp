#include "DepthFiles.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "ToolError.h"

namespace LumoTool {

void writeDepthTiff(const std::string& path, const cv::Mat& depth) {
  CV_Assert(depth.type() == CV_32FC1);
  if (!cv::imwrite(path, depth)) throw ToolError("cannot write '" + path + "'");
}

void writeDepthPng(const std::string& path, const cv::Mat& metres) {
  CV_Assert(metres.type() == CV_32FC1);
  cv::Mat mm(metres.size(), CV_16UC1);
  for (int v = 0; v < metres.rows; ++v) {
    const float* in = metres.ptr<float>(v);
    std::uint16_t* out = mm.ptr<std::uint16_t>(v);
    for (int u = 0; u < metres.cols; ++u) {
      const float d = in[u] * 1000.0f;
      // NaN and negative values are "no depth" too.
      out[u] = !(d > 0.0f) ? 0 : d >= 65535.0f ? 65535 : static_cast<std::uint16_t>(std::lround(d));
    }
  }
  if (!cv::imwrite(path, mm)) throw ToolError("cannot write '" + path + "'");
}

namespace {

cv::Mat readImage(const std::string& path, int type, const char* kind) {
  const cv::Mat image = cv::imread(path, cv::IMREAD_UNCHANGED);
  if (image.empty()) throw cannotRead(path, "not an image OpenCV can decode");
  if (image.type() != type) throw cannotRead(path, std::string("not a ") + kind + " single-channel depth image");
  return image;
}

std::uint32_t littleEndian(const unsigned char* b) {
  return static_cast<std::uint32_t>(b[0]) | static_cast<std::uint32_t>(b[1]) << 8 |
         static_cast<std::uint32_t>(b[2]) << 16 | static_cast<std::uint32_t>(b[3]) << 24;
}

cv::Mat readLdep(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw cannotRead(path, std::system_category().message(errno ? errno : ENOENT));
  unsigned char header[12];
  if (!in.read(reinterpret_cast<char*>(header), sizeof(header)) || std::memcmp(header, "LDEP", 4) != 0) {
    throw cannotRead(path, "not a depth file (no LDEP header)");
  }
  const std::uint32_t width = littleEndian(header + 4), height = littleEndian(header + 8);
  if (width == 0 || height == 0 || width > 16384 || height > 16384) {
    throw cannotRead(path, "implausible size " + std::to_string(width) + "x" + std::to_string(height));
  }
  std::vector<unsigned char> bytes(static_cast<std::size_t>(width) * height * 4);
  if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()))) {
    throw cannotRead(path, "file ends early");
  }
  cv::Mat depth(static_cast<int>(height), static_cast<int>(width), CV_32FC1);
  float* out = depth.ptr<float>(0);
  for (std::size_t i = 0; i < bytes.size() / 4; ++i) {
    const std::uint32_t bits = littleEndian(&bytes[i * 4]);
    std::memcpy(&out[i], &bits, 4);
  }
  return depth;
}

}  // namespace

cv::Mat readDepth(const std::string& path) {
  const std::string extension = std::filesystem::path(path).extension().string();
  if (extension == ".ldep") return readLdep(path);
  if (extension == ".png") {
    cv::Mat metres;
    readImage(path, CV_16UC1, "16-bit").convertTo(metres, CV_32FC1, 0.001);
    return metres;
  }
  return readImage(path, CV_32FC1, "32-bit float");
}

}  // namespace LumoTool
