// Pictures for people: colourised depth and error maps with a legend strip
// (colour bar with its end values), and the rectified pair side by side with
// horizontal guide lines, along which matching features must lie.
#pragma once

#include <opencv2/core.hpp>

namespace LumoTool {

struct DepthRange {
  float nearest = 0.0f, farthest = 0.0f;  // metres
  bool valid() const { return farthest > nearest; }
};

// 2nd to 98th percentile of the depths present, widened to whole decimetres;
// invalid when the image has (almost) no depth.
DepthRange depthRangeOf(const cv::Mat& depth);

// CV_32FC1 depth to BGR: near red, far blue, no depth black, legend below.
cv::Mat colouriseDepth(const cv::Mat& depth, DepthRange range);

// Relative error (CV_32FC1; NaN where there is nothing to compare) to BGR,
// 0 blue to `maxError` and beyond red; `noDepth` pixels (CV_8UC1 mask) grey,
// other NaN pixels black, the first `band` columns dimmed; legend below.
cv::Mat colouriseError(const cv::Mat& error, const cv::Mat& noDepth, float maxError, int band);

// A stacked pair (BGR, first view on top) side by side, with a guide line
// every `spacing` rows across both views.
cv::Mat sideBySideWithGuides(const cv::Mat& stacked, int spacing);

// Colourised depth blended half and half over a colour image of the same
// size (grey or BGR), where there is depth; legend below.
cv::Mat overlayDepth(const cv::Mat& colour, const cv::Mat& depth, DepthRange range);

}  // namespace LumoTool
