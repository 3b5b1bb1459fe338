#include "detect/ObjectLocator.h"

#include <algorithm>
#include <cmath>

namespace KorvLumetra {

namespace {

// Pixels whose centres u + 0.5 lie in [from, to); at least the one holding
// the middle, so that a box thinner than a pixel still has one. Clamped to [0, size).
cv::Range centralPixels(float from, float to, int size) {
  int begin = static_cast<int>(std::ceil(from - 0.5f));
  int end = static_cast<int>(std::ceil(to - 0.5f));
  if (end <= begin) {
    begin = static_cast<int>(std::floor(0.5f * (from + to)));
    end = begin + 1;
  }
  return cv::Range(std::clamp(begin, 0, size), std::clamp(end, 0, size));
}

}  // namespace

PixelRay pinholeRay(float fx, float fy, float cx, float cy) {
  return [=](float u, float v) {
    return cv::Point2f(static_cast<float>((static_cast<double>(u) - cx) / fx),
                       static_cast<float>((static_cast<double>(v) - cy) / fy));
  };
}

ObjectPosition ObjectLocator::locate(const cv::Mat& depth, const cv::Rect2f& box, const PixelRay& ray) {
  ObjectPosition out;
  CV_Assert(depth.type() == CV_32FC1);
  if (!std::isfinite(box.x) || !std::isfinite(box.y) || !std::isfinite(box.width) || !std::isfinite(box.height)) {
    return out;
  }
  const cv::Rect2f seen = box & cv::Rect2f(0.0f, 0.0f, static_cast<float>(depth.cols), static_cast<float>(depth.rows));
  if (!(seen.width > 0.0f && seen.height > 0.0f)) return out;

  const float cx = seen.x + 0.5f * seen.width, cy = seen.y + 0.5f * seen.height;
  const float halfWidth = 0.5f * settings_.centralShare * seen.width;
  const float halfHeight = 0.5f * settings_.centralShare * seen.height;
  const cv::Range columns = centralPixels(cx - halfWidth, cx + halfWidth, depth.cols);
  const cv::Range rows = centralPixels(cy - halfHeight, cy + halfHeight, depth.rows);
  values_.clear();
  for (int v = rows.start; v < rows.end; ++v) {
    const float* row = depth.ptr<float>(v);
    for (int u = columns.start; u < columns.end; ++u) {
      if (row[u] > 0.0f && std::isfinite(row[u])) values_.push_back(row[u]);
    }
  }
  const std::size_t total = static_cast<std::size_t>(columns.size()) * static_cast<std::size_t>(rows.size());
  out.validShare = total > 0 ? static_cast<float>(values_.size()) / static_cast<float>(total) : 0.0f;
  out.status = ObjectStatus::NoDepth;
  if (values_.empty() || out.validShare < settings_.minValidShare) return out;

  const auto middle = values_.begin() + static_cast<std::ptrdiff_t>(values_.size() / 2);
  std::nth_element(values_.begin(), middle, values_.end());
  const float d = *middle;
  // Box edges are pixel boundaries; rays are taken at pixel-centre coordinates, half a pixel less.
  const cv::Point2f centre = ray(cx - 0.5f, cy - 0.5f);
  const cv::Point2f topLeft = ray(seen.x - 0.5f, seen.y - 0.5f);
  const cv::Point2f bottomRight = ray(seen.x + seen.width - 0.5f, seen.y + seen.height - 0.5f);
  out.status = ObjectStatus::Located;
  out.distance = d;
  out.centre = cv::Point3f(centre.x * d, centre.y * d, d);
  out.width = std::fabs(bottomRight.x - topLeft.x) * d;
  out.height = std::fabs(bottomRight.y - topLeft.y) * d;
  return out;
}

}  // namespace KorvLumetra
