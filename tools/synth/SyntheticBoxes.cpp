#include "synth/SyntheticBoxes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

namespace LumoSynth {

namespace {

// Pixels whose centres u + 0.5 lie in the middle half of [begin, end).
cv::Range middleHalf(int begin, int end) {
  const double centre = 0.5 * (begin + end), half = 0.25 * (end - begin);
  return cv::Range(static_cast<int>(std::ceil(centre - half - 0.5)), static_cast<int>(std::ceil(centre + half - 0.5)));
}

double upperMedian(std::vector<float> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The box of `alone` (the scene with just one object) within the whole scene's depth `all`.
bool boxOf(const Rectification& rect, const Scene& alone, int frame, const cv::Mat& all, int minPixels,
           ObjectBox& box) {
  const cv::Mat own = rectifiedDepth(rect, alone, frame);
  // Visible where the object alone gives the same hit as the whole scene.
  const cv::Mat visible = (own > 0.0f) & (own == all);
  box.pixels = cv::countNonZero(visible);
  if (box.pixels < minPixels) return false;
  const cv::Rect extent = cv::boundingRect(visible);
  box.x0 = extent.x;
  box.y0 = extent.y;
  box.x1 = extent.x + extent.width;
  box.y1 = extent.y + extent.height;

  const cv::Range columns = middleHalf(box.x0, box.x1), rows = middleHalf(box.y0, box.y1);
  std::vector<float> middle, everywhere;
  for (int v = box.y0; v < box.y1; ++v) {
    for (int u = box.x0; u < box.x1; ++u) {
      if (visible.at<uchar>(v, u) == 0) continue;
      everywhere.push_back(own.at<float>(v, u));
      if (u >= columns.start && u < columns.end && v >= rows.start && v < rows.end) middle.push_back(own.at<float>(v, u));
    }
  }
  box.distance = upperMedian(middle.empty() ? everywhere : middle);
  return true;
}

}  // namespace

std::vector<ObjectBox> objectBoxes(const Rectification& rect, const Scene& scene, int frame, int minPixels) {
  const cv::Mat all = rectifiedDepth(rect, scene, frame);
  Scene alone = scene;
  alone.planes.clear();
  std::vector<ObjectBox> boxes;
  for (const Box& b : scene.boxes) {
    alone.boxes = {b};
    alone.spheres.clear();
    ObjectBox box;
    box.kind = "box";
    if (boxOf(rect, alone, frame, all, minPixels, box)) boxes.push_back(box);
  }
  for (const Sphere& s : scene.spheres) {
    alone.boxes.clear();
    alone.spheres = {s};
    ObjectBox box;
    box.kind = "sphere";
    if (boxOf(rect, alone, frame, all, minPixels, box)) boxes.push_back(box);
  }
  return boxes;
}

void writeObjectBoxes(const std::string& path, const Rig& rig, const Scene& scene, int frames) {
  const Rectification rect = rectification(rig, 1.0);
  std::ofstream out(path);
  out << "frame,class,score,x0,y0,x1,y1,true_distance\n";
  char line[160];
  for (int k = 0; k < frames; ++k) {
    for (const ObjectBox& b : objectBoxes(rect, scene, k)) {
      std::snprintf(line, sizeof(line), "%d,%s,1,%d,%d,%d,%d,%.5f\n", k, b.kind.c_str(), b.x0, b.y0, b.x1, b.y1,
                    b.distance);
      out << line;
    }
  }
  if (!out) throw std::runtime_error("cannot write boxes: " + path);
}

}  // namespace LumoSynth
