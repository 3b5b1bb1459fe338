// Where the stereo frames of `run` come from: a folder of stacked frames
// (frame_000000.png, ... or any images in name order), two folders of left
// and right views given as "LEFTDIR,RIGHTDIR", or a video file of stacked
// frames. Alongside a folder of stacked frames it also finds the colour
// camera's frames (colour_000000.png, ...) and the poses (poses.txt).
#pragma once

#include <map>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

namespace LumoTool {

struct Frame {
  cv::Mat image;     // 8-bit, grey or BGR: stacked, side by side, or as read
  int number = 0;    // the file's number (frame_000012.png is 12), or the position
  std::string name;  // for messages
};

class FrameSource {
 public:
  // Throws ToolError "cannot read" for a missing input or one without frames.
  explicit FrameSource(const std::string& input);

  // Frames in the sequence; -1 when a video does not tell.
  int count() const;
  // The next frame; false at the end. Throws ToolError for an unreadable image.
  bool next(Frame& frame);

  // The colour camera's frame with this number, empty when there is none.
  cv::Mat colour(int number) const;
  // The poses file beside the frames, empty when there is none.
  std::string posesPath() const { return posesPath_; }
  std::string describe() const;

 private:
  enum class Kind { Stacked, LeftRight, Video };
  Kind kind_ = Kind::Stacked;
  std::string input_;
  std::vector<std::pair<std::string, std::string>> files_;  // stacked or left view, right view
  std::vector<int> numbers_;
  std::map<int, std::string> colours_;
  std::string posesPath_;
  cv::VideoCapture video_;
  int videoFrames_ = -1;
  std::size_t position_ = 0;
};

}  // namespace LumoTool
