// Depth images on disk. The program writes depth twice per frame: as a 32-bit
// float TIFF in the calibration's unit (exact; OpenCV, numpy-based readers
// and image viewers open it) and as a 16-bit PNG in millimetres (the
// calibration's unit taken as metres; values clamp at 65.535 m), the form
// RGB-D tools such as Open3D read. 0 is "no depth" in both. Ground truth
// comes as the same float TIFF, or, from sample folders of earlier versions,
// in the renderer's old "LDEP" format: the magic, width and height as
// little-endian uint32, then width·height little-endian float32 metres.
#pragma once

#include <string>

#include <opencv2/core.hpp>

namespace LumoTool {

// CV_32FC1 to a float TIFF and to a 16-bit millimetre PNG; throw ToolError
// when the file cannot be written.
void writeDepthTiff(const std::string& path, const cv::Mat& depth);
void writeDepthPng(const std::string& path, const cv::Mat& metres);

// Any of the forms above, chosen by the extension (.tiff, .png, .ldep), as
// CV_32FC1; throws ToolError "cannot read" with the reason.
cv::Mat readDepth(const std::string& path);

}  // namespace LumoTool
