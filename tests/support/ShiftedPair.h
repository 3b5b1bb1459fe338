// A stacked BGR stereo pair (left view on top) of one random texture seen
// `shift` pixels further left in the right view: every pixel the matcher can
// see has disparity `shift`.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "lumetra_depth.h"

namespace LumoTest {

inline cv::Mat makeShiftedPair(int width, int height, int shift, unsigned seed) {
  cv::RNG rng(seed);
  cv::Mat texture(height, width + shift, CV_8UC1);
  rng.fill(texture, cv::RNG::UNIFORM, 0, 256);
  // A light blur keeps the texture matchable at the block scale.
  cv::GaussianBlur(texture, texture, cv::Size(3, 3), 0.8);
  cv::Mat stacked(2 * height, width, CV_8UC3);
  cv::cvtColor(texture(cv::Rect(0, 0, width, height)), stacked(cv::Rect(0, 0, width, height)), cv::COLOR_GRAY2BGR);
  cv::cvtColor(texture(cv::Rect(shift, 0, width, height)), stacked(cv::Rect(0, height, width, height)),
               cv::COLOR_GRAY2BGR);
  return stacked;
}

// Wraps a stacked image (1 or 3 channels) as a frame record, without a copy.
inline LumoImage wrapStacked(cv::Mat& stacked, uint64_t timestamp) {
  LumoImage image{};
  image.timestamp = timestamp;
  image.width = static_cast<uint32_t>(stacked.cols);
  image.height = static_cast<uint32_t>(stacked.rows);
  image.channels = static_cast<uint32_t>(stacked.channels());
  image.stride = image.width * image.channels;
  image.size = image.stride * image.height;
  image.data = stacked.data;
  return image;
}

}  // namespace LumoTest
