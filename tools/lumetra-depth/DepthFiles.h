// Depth images on disk. The program writes depth as 16-bit PNG in
// millimetres (the calibration's unit taken as metres; 0 = no depth, values
// clamp at 65.535 m), and reads ground truth in the renderer's float format:
// "LDEP", width and height as little-endian uint32, then width·height
// little-endian float32 metres, row by row, 0 = no depth.
#pragma once

#include <string>

#include <opencv2/core.hpp>

namespace LumoTool {

// CV_32FC1 metres to a 16-bit millimetre PNG; throws ToolError when it cannot be written.
void writeDepthPng(const std::string& path, const cv::Mat& metres);
// A 16-bit millimetre PNG back to CV_32FC1 metres; throws ToolError "cannot read".
cv::Mat readDepthPng(const std::string& path);
// A float depth file as CV_32FC1 metres; throws ToolError "cannot read".
cv::Mat readDepthFile(const std::string& path);

}  // namespace LumoTool
