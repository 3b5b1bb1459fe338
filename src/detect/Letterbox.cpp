#include "detect/Letterbox.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace KorvLumetra {

cv::Rect2f Letterbox::toImage(const cv::Rect2f& box) const {
  const cv::Rect2f mapped((box.x - static_cast<float>(padLeft)) / scale, (box.y - static_cast<float>(padTop)) / scale,
                          box.width / scale, box.height / scale);
  const cv::Rect2f clipped =
      mapped & cv::Rect2f(0.0f, 0.0f, static_cast<float>(source.width), static_cast<float>(source.height));
  return clipped.width > 0.0f && clipped.height > 0.0f ? clipped : cv::Rect2f();
}

Letterbox letterbox(const cv::Mat& image, cv::Size target, const cv::Scalar& pad, cv::Mat& out) {
  Letterbox box;
  box.source = image.size();
  box.target = target;
  const double scale = std::min(static_cast<double>(target.width) / image.cols,
                                static_cast<double>(target.height) / image.rows);
  box.scale = static_cast<float>(scale);
  const int width = std::clamp(static_cast<int>(std::lround(image.cols * scale)), 1, target.width);
  const int height = std::clamp(static_cast<int>(std::lround(image.rows * scale)), 1, target.height);
  box.padLeft = (target.width - width) / 2;
  box.padTop = (target.height - height) / 2;

  out.create(target, image.type());
  out.setTo(pad);
  cv::Mat inside = out(cv::Rect(box.padLeft, box.padTop, width, height));
  if (inside.size() == image.size()) {
    image.copyTo(inside);
  } else {
    cv::resize(image, inside, inside.size(), 0.0, 0.0, cv::INTER_LINEAR);  // writes into the view: same size and type
  }
  return box;
}

}  // namespace KorvLumetra
