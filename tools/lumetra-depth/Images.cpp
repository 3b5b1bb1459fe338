#include "Images.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace LumoTool {

namespace {

const cv::Scalar kStripColour(40, 40, 40);
const cv::Scalar kTextColour(235, 235, 235);

std::string metres(float value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f m", value);
  return text;
}

// The bar's colours: 256 entries of the colour map, left to right.
cv::Mat colourBar(int width, int height, bool reversed) {
  cv::Mat ramp(1, width, CV_8UC1);
  for (int x = 0; x < width; ++x) {
    const int value = width > 1 ? x * 255 / (width - 1) : 0;
    ramp.at<uchar>(0, x) = static_cast<uchar>(reversed ? 255 - value : value);
  }
  cv::Mat bar;
  cv::applyColorMap(ramp, bar, cv::COLORMAP_TURBO);
  cv::resize(bar, bar, cv::Size(width, height), 0, 0, cv::INTER_NEAREST);
  return bar;
}

// Appends a legend strip: a colour bar with `left` and `right` at its ends
// and `caption` between them when it fits.
cv::Mat withLegend(const cv::Mat& image, bool reversed, const std::string& left, const std::string& right,
                   const std::string& caption) {
  const int font = cv::FONT_HERSHEY_SIMPLEX;
  const double scale = std::clamp(image.cols / 1400.0, 0.35, 0.8);
  const int thickness = scale > 0.6 ? 2 : 1;
  int baseline = 0;
  const cv::Size textSize = cv::getTextSize("0.00 m", font, scale, thickness, &baseline);
  const int margin = std::max(6, image.cols / 80);
  const int barHeight = std::max(8, textSize.height);
  const int stripHeight = margin + barHeight + margin / 2 + textSize.height + baseline + margin / 2;

  cv::Mat out(image.rows + stripHeight, image.cols, CV_8UC3, kStripColour);
  image.copyTo(out(cv::Rect(0, 0, image.cols, image.rows)));
  const int barWidth = image.cols - 2 * margin;
  if (barWidth < 16) return out;
  const cv::Rect barRect(margin, image.rows + margin, barWidth, barHeight);
  colourBar(barWidth, barHeight, reversed).copyTo(out(barRect));
  cv::rectangle(out, barRect, kTextColour, 1);

  const int textY = barRect.y + barHeight + margin / 2 + textSize.height;
  const cv::Size leftSize = cv::getTextSize(left, font, scale, thickness, &baseline);
  const cv::Size rightSize = cv::getTextSize(right, font, scale, thickness, &baseline);
  const cv::Size captionSize = cv::getTextSize(caption, font, scale, thickness, &baseline);
  cv::putText(out, left, cv::Point(margin, textY), font, scale, kTextColour, thickness, cv::LINE_AA);
  cv::putText(out, right, cv::Point(margin + barWidth - rightSize.width, textY), font, scale, kTextColour, thickness,
              cv::LINE_AA);
  const int free = barWidth - leftSize.width - rightSize.width - 4 * margin;
  if (captionSize.width <= free) {
    cv::putText(out, caption, cv::Point(margin + (barWidth - captionSize.width) / 2, textY), font, scale,
                kTextColour, thickness, cv::LINE_AA);
  }
  return out;
}

}  // namespace

DepthRange depthRangeOf(const cv::Mat& depth) {
  std::vector<float> values;
  values.reserve(depth.total());
  for (int v = 0; v < depth.rows; ++v) {
    const float* row = depth.ptr<float>(v);
    for (int u = 0; u < depth.cols; ++u) {
      if (row[u] > 0.0f && std::isfinite(row[u])) values.push_back(row[u]);
    }
  }
  DepthRange range;
  if (values.size() < 16) return range;
  const auto at = [&](double share) {
    const std::size_t k = static_cast<std::size_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
    return values[k];
  };
  range.nearest = std::floor(at(0.02) * 10.0f) / 10.0f;
  range.farthest = std::ceil(at(0.98) * 10.0f) / 10.0f;
  if (range.farthest <= range.nearest) range.farthest = range.nearest + 0.1f;
  return range;
}

namespace {

// Depth to colours without legend; `valid` receives the pixels with depth.
cv::Mat depthPicture(const cv::Mat& depth, DepthRange range, cv::Mat& valid) {
  cv::Mat index(depth.size(), CV_8UC1);
  valid.create(depth.size(), CV_8UC1);
  const float span = range.farthest - range.nearest;
  for (int v = 0; v < depth.rows; ++v) {
    const float* d = depth.ptr<float>(v);
    uchar* out = index.ptr<uchar>(v);
    uchar* ok = valid.ptr<uchar>(v);
    for (int u = 0; u < depth.cols; ++u) {
      ok[u] = d[u] > 0.0f && std::isfinite(d[u]) ? 255 : 0;
      // Near is the warm end of the map.
      const float t = ok[u] ? std::clamp((range.farthest - d[u]) / span, 0.0f, 1.0f) : 0.0f;
      out[u] = static_cast<uchar>(std::lround(t * 255.0f));
    }
  }
  cv::Mat colour;
  cv::applyColorMap(index, colour, cv::COLORMAP_TURBO);
  cv::Mat picture(depth.size(), CV_8UC3, cv::Scalar(0, 0, 0));
  colour.copyTo(picture, valid);
  return picture;
}

}  // namespace

cv::Mat colouriseDepth(const cv::Mat& depth, DepthRange range) {
  if (!range.valid()) range = DepthRange{0.0f, 10.0f};
  cv::Mat valid;
  const cv::Mat picture = depthPicture(depth, range, valid);
  return withLegend(picture, true, metres(range.nearest), metres(range.farthest), "depth (black: none)");
}

cv::Mat overlayDepth(const cv::Mat& colour, const cv::Mat& depth, DepthRange range) {
  if (!range.valid()) range = DepthRange{0.0f, 10.0f};
  cv::Mat bgr = colour;
  if (colour.channels() == 1) cv::cvtColor(colour, bgr, cv::COLOR_GRAY2BGR);
  cv::Mat valid;
  const cv::Mat picture = depthPicture(depth, range, valid);
  cv::Mat mixed;
  cv::addWeighted(bgr, 0.5, picture, 0.5, 0.0, mixed);
  cv::Mat out = bgr.clone();
  mixed.copyTo(out, valid);
  return withLegend(out, true, metres(range.nearest), metres(range.farthest), "depth over colour");
}

cv::Mat colouriseError(const cv::Mat& error, const cv::Mat& noDepth, float maxError, int band) {
  cv::Mat index(error.size(), CV_8UC1), valid(error.size(), CV_8UC1);
  for (int v = 0; v < error.rows; ++v) {
    const float* e = error.ptr<float>(v);
    uchar* out = index.ptr<uchar>(v);
    uchar* ok = valid.ptr<uchar>(v);
    for (int u = 0; u < error.cols; ++u) {
      ok[u] = std::isfinite(e[u]) ? 255 : 0;
      out[u] = ok[u] ? static_cast<uchar>(std::lround(std::clamp(e[u] / maxError, 0.0f, 1.0f) * 255.0f)) : 0;
    }
  }
  cv::Mat colour;
  cv::applyColorMap(index, colour, cv::COLORMAP_TURBO);
  cv::Mat picture(error.size(), CV_8UC3, cv::Scalar(0, 0, 0));
  picture.setTo(cv::Scalar(128, 128, 128), noDepth);
  colour.copyTo(picture, valid);
  if (band > 0) {
    // The matcher cannot see the left band: dim it and mark its edge.
    cv::Mat left = picture(cv::Rect(0, 0, std::min(band, picture.cols), picture.rows));
    left *= 0.4;
    cv::line(picture, cv::Point(band, 0), cv::Point(band, picture.rows - 1), cv::Scalar(255, 255, 255), 1);
  }
  char right[32];
  std::snprintf(right, sizeof(right), ">= %g %%", 100.0 * maxError);
  return withLegend(picture, false, "0 %", right, "relative error (grey: no depth)");
}

cv::Mat sideBySideWithGuides(const cv::Mat& stacked, int spacing) {
  const int h = stacked.rows / 2;
  cv::Mat out;
  cv::hconcat(stacked(cv::Rect(0, 0, stacked.cols, h)), stacked(cv::Rect(0, h, stacked.cols, h)), out);
  for (int y = spacing / 2; y < h; y += spacing) {
    cv::line(out, cv::Point(0, y), cv::Point(out.cols - 1, y), cv::Scalar(0, 255, 0), 1);
  }
  cv::line(out, cv::Point(stacked.cols, 0), cv::Point(stacked.cols, h - 1), cv::Scalar(255, 255, 255), 1);
  return out;
}

}  // namespace LumoTool
