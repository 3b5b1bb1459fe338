// Where a detected object is in 3-D: a robust depth for its box on a depth
// image, and the box's centre and extent at that depth.
//
// Threads: one caller at a time per locator (it keeps a scratch buffer).
#pragma once

#include <functional>
#include <vector>

#include <opencv2/core.hpp>

namespace KorvLumetra {

enum class ObjectStatus : int {
  Located = 0,  // distance, centre and extent are set
  NoDepth = 1,  // too few pixels with depth in the box's central part: no position is made up
  Outside = 2,  // the box does not overlap the image, or is not a box (empty, not finite)
};

struct ObjectPosition {
  ObjectStatus status = ObjectStatus::Outside;
  float distance = 0.0f;      // median depth of the central part (depth unit); 0 unless located
  float validShare = 0.0f;    // share of the central part's pixels that have depth, 0..1
  cv::Point3f centre;         // the box centre's ray at that depth; zero unless located
  float width = 0.0f;         // extent of the box at that depth (depth unit); 0 unless located
  float height = 0.0f;
};

struct LocateSettings {
  float centralShare = 0.5f;   // width and height of the central part, as shares of the box's, in (0, 1]
  float minValidShare = 0.25f; // fewer pixels with depth than this share of the central part: NoDepth
};

// (X/Z, Y/Z) of the ray through a position (u, v) of the depth image, with
// integer coordinates at pixel centres, in the depth camera's frame.
using PixelRay = std::function<cv::Point2f(float u, float v)>;

// The rays of a pinhole camera (a rectified view): ((u - cx) / fx, (v - cy) / fy).
// Single precision, as the projections the library hands out, and small enough
// to be held by the function object without an allocation.
PixelRay pinholeRay(float fx, float fy, float cx, float cy);

class ObjectLocator {
 public:
  explicit ObjectLocator(const LocateSettings& settings = LocateSettings()) : settings_(settings) {}

  // `depth`: CV_32FC1; 0, negative, NaN and infinite values are "no depth".
  // `box`: pixels of `depth` (see Letterbox.h), clipped to the image first.
  // The depth is the median (upper middle for an even count) of the valid
  // depths whose pixel centres lie in the central part of the box; the
  // centre and the corners of the box, taken through `ray`, are placed at it.
  ObjectPosition locate(const cv::Mat& depth, const cv::Rect2f& box, const PixelRay& ray);

 private:
  LocateSettings settings_;
  std::vector<float> values_;  // valid depths of the central part
};

}  // namespace KorvLumetra
