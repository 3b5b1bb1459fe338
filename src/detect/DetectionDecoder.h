// Boxes from the raw output of a single-stage detector: score threshold,
// non-maximum suppression per class, the best boxes first, mapped back onto
// the image the detector saw through its letterbox.
//
// Threads: one caller at a time per decoder (it keeps scratch buffers).
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "detect/Letterbox.h"

namespace KorvLumetra {

struct Detection {
  int classId = -1;
  float score = 0.0f;
  cv::Rect2f box;     // image pixels, clipped to the image (see Letterbox.h)
  std::string label;  // the class's name, empty without a label list
};

struct DecodeSettings {
  // Rows are (cx, cy, w, h, objectness, class scores...) when set, else
  // (cx, cy, w, h, class scores...); centre and size in detector pixels.
  bool objectness = false;
  // The output holds one box per column (attributes x boxes) instead of one per row.
  bool transposed = false;
  int classCount = 0;           // class scores per box
  float scoreThreshold = 0.25f; // boxes scoring below, or 0, are dropped
  float iouThreshold = 0.45f;   // a box overlapping a better one of its class by more is dropped
  int maxBoxes = 100;           // at most this many boxes come out
};

class DetectionDecoder {
 public:
  // `output` is the detector's output as a 2-D CV_32FC1 matrix (a batch of
  // one with its leading dimension dropped). A box's score is its best class
  // score, times its objectness in that layout; one box per row, of its best
  // class. `letterbox` (may be null: boxes stay in detector pixels) maps the
  // boxes back; boxes left with no area are dropped. `labels` (may be null)
  // names the classes and must then have classCount names.
  // Returns false with a one-line reason in `error` for a wrong shape, a
  // score that is not a finite number, or a non-finite box that passes the
  // threshold; `detections` is then empty.
  bool decode(const cv::Mat& output, const DecodeSettings& settings, const Letterbox* letterbox,
              const std::vector<std::string>* labels, std::vector<Detection>& detections, std::string& error);

 private:
  // Candidates above the threshold, reused between calls.
  std::vector<cv::Rect2d> boxes_;
  std::vector<cv::Rect2d> shifted_;  // moved apart by class so that one suppression pass keeps classes apart
  std::vector<float> scores_;
  std::vector<int> classes_;
  std::vector<int> kept_;
};

}  // namespace KorvLumetra
