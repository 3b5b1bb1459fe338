#include "FrameSource.h"

#include <algorithm>
#include <cstdio>
#include <cctype>
#include <filesystem>
#include <set>
#include <system_error>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "AslFolder.h"
#include "HeldOutput.h"
#include "ToolError.h"

namespace fs = std::filesystem;

namespace LumoTool {

namespace {

bool isImage(const fs::path& path) {
  std::string ext = path.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext == ".png" || ext == ".jpg" || ext == ".jpeg" || ext == ".bmp" || ext == ".tif" || ext == ".tiff" ||
         ext == ".pgm" || ext == ".ppm";
}

bool startsWith(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

// The last run of digits in a file's stem, -1 when it has none.
int numberIn(const fs::path& path) {
  const std::string stem = path.stem().string();
  const std::size_t last = stem.find_last_of("0123456789");
  if (last == std::string::npos) return -1;
  std::size_t first = last;
  while (first > 0 && std::isdigit(static_cast<unsigned char>(stem[first - 1]))) --first;
  if (last - first >= 9) return -1;  // too long to be a frame number
  return std::stoi(stem.substr(first, last - first + 1));
}

// File names that do not number the frames uniquely give way to positions.
void byPositionUnlessUnique(std::vector<int>& numbers) {
  if (std::set<int>(numbers.begin(), numbers.end()).size() == numbers.size()) return;
  for (std::size_t i = 0; i < numbers.size(); ++i) numbers[i] = static_cast<int>(i);
}

std::string reason(const std::error_code& error) { return error ? error.message() : "No such file or directory"; }

void requireDirectory(const std::string& path) {
  std::error_code error;
  if (!fs::exists(path, error)) throw cannotRead(path, reason(error));
  if (!fs::is_directory(path, error)) throw cannotRead(path, "not a directory");
}

// Images of a folder in name order; those with a prefix in `skip` are left out.
std::vector<fs::path> imagesIn(const std::string& dir, const std::vector<std::string>& skip) {
  std::vector<fs::path> out;
  std::error_code error;
  for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
    const fs::path& path = it->path();
    if (!isImage(path)) continue;
    const std::string name = path.filename().string();
    if (std::any_of(skip.begin(), skip.end(), [&](const std::string& p) { return startsWith(name, p); })) continue;
    out.push_back(path);
  }
  if (error) throw cannotRead(dir, error.message());
  std::sort(out.begin(), out.end());
  return out;
}

cv::Mat readImage(const std::string& path) {
  cv::Mat image;
  {
    HeldOutput quiet(STDERR_FILENO);  // decoders print their own complaints
    image = cv::imread(path, cv::IMREAD_UNCHANGED);
  }
  if (image.empty()) throw cannotRead(path, "not an image OpenCV can decode");
  if (image.depth() != CV_8U) throw cannotRead(path, "not an 8-bit image");
  if (image.channels() == 4) cv::cvtColor(image, image, cv::COLOR_BGRA2BGR);
  return image;
}

std::string numberLabel(int number) {
  char text[16];
  std::snprintf(text, sizeof(text), "%06d", number);
  return text;
}

}  // namespace

FrameSource::FrameSource(const std::string& input) : input_(input) {
  const std::size_t comma = input.find(',');
  std::error_code error;
  const std::string mav0 = AslFolder::find(input);
  if (!mav0.empty()) {
    kind_ = Kind::Asl;
    const AslFolder folder = AslFolder::read(mav0);
    for (const AslPair& pair : folder.pairs) {
      files_.emplace_back(pair.left, pair.right);
      numbers_.push_back(static_cast<int>(numbers_.size()));
      stamps_.push_back(pair.timestamp);
    }
    unpairedLeft_ = folder.unpairedLeft;
    unpairedRight_ = folder.unpairedRight;
    return;
  }
  if (comma != std::string::npos && !fs::exists(input, error)) {
    kind_ = Kind::LeftRight;
    const std::string leftDir = input.substr(0, comma), rightDir = input.substr(comma + 1);
    requireDirectory(leftDir);
    requireDirectory(rightDir);
    const std::vector<fs::path> left = imagesIn(leftDir, {}), right = imagesIn(rightDir, {});
    if (left.empty()) throw cannotRead(leftDir, "no images");
    if (left.size() != right.size()) {
      throw cannotRead(input, std::to_string(left.size()) + " left images but " + std::to_string(right.size()) +
                                  " right images");
    }
    for (std::size_t i = 0; i < left.size(); ++i) {
      files_.emplace_back(left[i].string(), right[i].string());
      const int n = numberIn(left[i]);
      numbers_.push_back(n >= 0 ? n : static_cast<int>(i));
    }
    byPositionUnlessUnique(numbers_);
    return;
  }
  if (!fs::exists(input, error)) throw cannotRead(input, reason(error));

  if (!fs::is_directory(input, error)) {
    kind_ = Kind::Video;
    bool opened = false;
    {
      HeldOutput quiet(STDERR_FILENO);  // every backend tried reports its failure
      opened = video_.open(input) && video_.isOpened();
    }
    if (!opened) throw cannotRead(input, "not a video OpenCV can open");
    const double frames = video_.get(cv::CAP_PROP_FRAME_COUNT);
    videoFrames_ = frames > 0 ? static_cast<int>(frames) : -1;
    return;
  }

  // A folder of stacked frames: frame_*.png when there are any, else every
  // image but the colour camera's and depth outputs.
  std::vector<fs::path> frames = imagesIn(input, {"colour_", "depth_"});
  std::vector<fs::path> named;
  std::copy_if(frames.begin(), frames.end(), std::back_inserter(named),
               [](const fs::path& p) { return startsWith(p.filename().string(), "frame_"); });
  if (!named.empty()) frames = named;
  if (frames.empty()) throw cannotRead(input, "no images (frame_000000.png, ...)");
  for (std::size_t i = 0; i < frames.size(); ++i) {
    files_.emplace_back(frames[i].string(), "");
    const int n = numberIn(frames[i]);
    numbers_.push_back(n >= 0 ? n : static_cast<int>(i));
  }
  // colour_depth_N.tiff beside them is the colour camera's ground truth, not a frame.
  for (const fs::path& path : imagesIn(input, {"colour_depth_"})) {
    if (startsWith(path.filename().string(), "colour_") && numberIn(path) >= 0) {
      colours_[numberIn(path)] = path.string();
    }
  }
  byPositionUnlessUnique(numbers_);
  const fs::path poses = fs::path(input) / "poses.txt";
  if (fs::exists(poses, error)) posesPath_ = poses.string();
}

std::vector<std::uint64_t> FrameSource::timestamps() const {
  if (kind_ == Kind::Asl) return stamps_;
  std::vector<std::uint64_t> out;
  if (kind_ == Kind::Video) return out;
  for (int n : numbers_) out.push_back(static_cast<std::uint64_t>(n) * 1000000ull + 1ull);
  return out;
}

int FrameSource::count() const { return kind_ == Kind::Video ? videoFrames_ : static_cast<int>(files_.size()); }

bool FrameSource::next(Frame& frame) {
  if (kind_ == Kind::Video) {
    cv::Mat image;
    if (!video_.read(image) || image.empty()) return false;
    frame.image = image;
    frame.number = static_cast<int>(position_);
    frame.name = input_ + " frame " + std::to_string(position_);
    frame.label = numberLabel(frame.number);
    ++position_;
    return true;
  }
  if (position_ >= files_.size()) return false;
  const auto& files = files_[position_];
  frame.number = numbers_[position_];
  frame.name = files.first;
  frame.timestamp = kind_ == Kind::Asl ? stamps_[position_] : 0;
  frame.label = kind_ == Kind::Asl ? std::to_string(frame.timestamp) : numberLabel(frame.number);
  frame.image = readImage(files.first);
  if (kind_ == Kind::LeftRight || kind_ == Kind::Asl) {
    const cv::Mat right = readImage(files.second);
    if (right.size() != frame.image.size()) {
      throw ToolError("'" + files.second + "' is " + std::to_string(right.cols) + "x" + std::to_string(right.rows) +
                      " but its left view is " + std::to_string(frame.image.cols) + "x" +
                      std::to_string(frame.image.rows));
    }
    cv::Mat rightLike = right;
    if (right.channels() != frame.image.channels()) {
      cv::cvtColor(right, rightLike, right.channels() == 1 ? cv::COLOR_GRAY2BGR : cv::COLOR_BGR2GRAY);
    }
    cv::vconcat(frame.image, rightLike, frame.image);  // left view on top
  }
  ++position_;
  return true;
}

cv::Mat FrameSource::colour(int number) const {
  const auto it = colours_.find(number);
  return it == colours_.end() ? cv::Mat() : readImage(it->second);
}

std::string FrameSource::describe() const {
  switch (kind_) {
    case Kind::LeftRight: return std::to_string(files_.size()) + " left and right views from " + input_;
    case Kind::Video: return "video " + input_;
    case Kind::Asl: return std::to_string(files_.size()) + " recorded stereo pairs from " + input_;
    default: return std::to_string(files_.size()) + " stacked frames from " + input_;
  }
}

}  // namespace LumoTool
