#include "detect/DetectionDecoder.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include <opencv2/dnn.hpp>

namespace KorvLumetra {

namespace {

bool refuse(const std::string& reason, std::vector<Detection>& detections, std::string& error) {
  detections.clear();
  error = reason;
  return false;
}

}  // namespace

bool DetectionDecoder::decode(const cv::Mat& output, const DecodeSettings& settings, const Letterbox* letterbox,
                              const std::vector<std::string>* labels, std::vector<Detection>& detections,
                              std::string& error) {
  detections.clear();
  boxes_.clear();
  scores_.clear();
  classes_.clear();
  if (output.empty() || output.dims != 2 || output.type() != CV_32FC1) {
    return refuse("detector output must be a non-empty 2-D matrix of floats", detections, error);
  }
  if (settings.classCount < 1) return refuse("class count must be at least 1", detections, error);
  if (!(settings.scoreThreshold >= 0.0f && settings.scoreThreshold <= 1.0f) ||
      !(settings.iouThreshold >= 0.0f && settings.iouThreshold <= 1.0f)) {
    return refuse("score and IoU thresholds must lie in [0, 1]", detections, error);
  }
  if (settings.maxBoxes < 1) return refuse("at most 0 boxes asked for", detections, error);
  if (labels != nullptr && static_cast<int>(labels->size()) != settings.classCount) {
    return refuse("the detector has " + std::to_string(settings.classCount) + " classes, the label list " +
                      std::to_string(labels->size()),
                  detections, error);
  }
  const int first = settings.objectness ? 5 : 4;  // first class score
  const int attributes = first + settings.classCount;
  const int count = settings.transposed ? output.cols : output.rows;
  const int width = settings.transposed ? output.rows : output.cols;
  if (width != attributes) {
    return refuse(std::string("detector output has ") + std::to_string(width) + " values per box, the layout wants " +
                      std::to_string(attributes) + " (4 box values, " + (settings.objectness ? "objectness, " : "") +
                      std::to_string(settings.classCount) + " class scores)",
                  detections, error);
  }

  // Attribute a of box i, whichever way round the output is stored.
  const std::size_t rowStep = output.step1();
  const float* data = output.ptr<float>(0);
  const auto at = [&](int i, int a) {
    return settings.transposed ? data[static_cast<std::size_t>(a) * rowStep + i]
                               : data[static_cast<std::size_t>(i) * rowStep + a];
  };
  double extent = 0.0;  // largest coordinate magnitude of a candidate
  for (int i = 0; i < count; ++i) {
    int best = 0;
    float bestScore = at(i, first);
    for (int c = 0; c < settings.classCount; ++c) {
      const float s = at(i, first + c);
      if (!std::isfinite(s)) {
        return refuse("box " + std::to_string(i) + " of the detector output has a class score that is not a number",
                      detections, error);
      }
      if (s > bestScore) {
        bestScore = s;
        best = c;
      }
    }
    float score = bestScore;
    if (settings.objectness) {
      const float objectness = at(i, 4);
      if (!std::isfinite(objectness)) {
        return refuse("box " + std::to_string(i) + " of the detector output has an objectness that is not a number",
                      detections, error);
      }
      score = objectness * bestScore;
    }
    if (!(score >= settings.scoreThreshold && score > 0.0f)) continue;
    const float cx = at(i, 0), cy = at(i, 1), w = at(i, 2), h = at(i, 3);
    if (!std::isfinite(cx) || !std::isfinite(cy) || !std::isfinite(w) || !std::isfinite(h)) {
      return refuse("box " + std::to_string(i) + " of the detector output has a coordinate that is not a number",
                    detections, error);
    }
    if (!(w > 0.0f && h > 0.0f)) continue;
    boxes_.emplace_back(cx - 0.5 * w, cy - 0.5 * h, w, h);
    scores_.push_back(score);
    classes_.push_back(best);
    extent = std::max({extent, std::fabs(cx) + 0.5 * w, std::fabs(cy) + 0.5 * h});
  }

  // One suppression pass for all classes: each class moved by a distance no
  // box can span, so boxes of different classes never overlap.
  const double offset = 2.0 * extent + 1.0;
  shifted_.resize(boxes_.size());
  for (std::size_t i = 0; i < boxes_.size(); ++i) {
    shifted_[i] = boxes_[i];
    shifted_[i].x += offset * classes_[i];
    shifted_[i].y += offset * classes_[i];
  }
  // Every candidate scores above 0, the lowest threshold the suppression takes.
  cv::dnn::NMSBoxes(shifted_, scores_, 0.0f, settings.iouThreshold, kept_);
  // Best first; equal scores in output order.
  std::sort(kept_.begin(), kept_.end());
  std::stable_sort(kept_.begin(), kept_.end(), [&](int a, int b) { return scores_[a] > scores_[b]; });

  for (int i : kept_) {
    if (static_cast<int>(detections.size()) == settings.maxBoxes) break;
    Detection d;
    d.classId = classes_[i];
    d.score = scores_[i];
    d.box = cv::Rect2f(static_cast<float>(boxes_[i].x), static_cast<float>(boxes_[i].y),
                       static_cast<float>(boxes_[i].width), static_cast<float>(boxes_[i].height));
    if (letterbox != nullptr) {
      d.box = letterbox->toImage(d.box);
      if (d.box.area() <= 0.0f) continue;
    }
    if (labels != nullptr) d.label = (*labels)[static_cast<std::size_t>(d.classId)];
    detections.push_back(std::move(d));
  }
  error.clear();
  return true;
}

}  // namespace KorvLumetra
