// Where the stereo frames of `run` come from: a folder of stacked frames
// (frame_000000.png, ... or any images in name order), two folders of left
// and right views given as "LEFTDIR,RIGHTDIR", a video file of stacked
// frames, or a recording in the EuRoC-style layout (mav0/cam0, mav0/cam1),
// whose frames carry the nanosecond time stamps of their file names. Alongside a folder of stacked frames it also finds the colour
// camera's frames (colour_000000.png, ...) and the poses (poses.txt).
#pragma once

#include <cstdint>
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
  std::uint64_t timestamp = 0;  // nanoseconds from the recording; 0: none
  std::string label;  // names the frame's outputs: "000012", or the time stamp
};

// How the two views lie in one image of a folder or a video.
enum class Layout { Either, Stacked, SideBySide };

class FrameSource {
 public:
  // Throws ToolError "cannot read" for a missing input or one without frames.
  explicit FrameSource(const std::string& input);

  // Frames in the sequence; -1 when a video does not tell.
  int count() const;
  // The next frame; false at the end. Throws ToolError for an unreadable image.
  bool next(Frame& frame);

  // Time stamps of the frames, in order, when known before reading them:
  // from a recording's file names, else frame N at N * 1000000 + 1. Empty
  // for a video.
  std::vector<std::uint64_t> timestamps() const;
  // Views of one camera without a partner of the other's time stamp (recordings).
  int unpairedLeft() const { return unpairedLeft_; }
  int unpairedRight() const { return unpairedRight_; }
  bool recording() const { return kind_ == Kind::Asl; }
  bool singleImages() const { return kind_ == Kind::Stacked || kind_ == Kind::Video; }

  // The colour camera's frame with this number, empty when there is none.
  cv::Mat colour(int number) const;
  // The poses file beside the frames, empty when there is none.
  std::string posesPath() const { return posesPath_; }
  std::string describe() const;

 private:
  enum class Kind { Stacked, LeftRight, Video, Asl };
  Kind kind_ = Kind::Stacked;
  std::string input_;
  std::vector<std::pair<std::string, std::string>> files_;  // stacked or left view, right view
  std::vector<int> numbers_;
  std::vector<std::uint64_t> stamps_;  // recordings
  int unpairedLeft_ = 0, unpairedRight_ = 0;
  std::map<int, std::string> colours_;
  std::string posesPath_;
  cv::VideoCapture video_;
  int videoFrames_ = -1;
  std::size_t position_ = 0;
};

}  // namespace LumoTool
