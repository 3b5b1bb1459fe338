// Fitting an image into a detector's fixed input size without distorting it,
// and mapping the detector's boxes back onto the image.
//
// Boxes here and in the other detection helpers are in pixel units where
// pixel (u, v) covers [u, u + 1) x [v, v + 1): (0, 0, width, height) is the
// whole image, the convention of cv::Rect and of common detectors.
#pragma once

#include <opencv2/core.hpp>

namespace KorvLumetra {

struct Letterbox {
  float scale = 1.0f;        // detector pixels per image pixel
  int padLeft = 0;           // columns of padding left of the resized image
  int padTop = 0;            // rows of padding above it
  cv::Size source;           // the image's size
  cv::Size target;           // the detector input's size

  // A box in detector pixels as a box of the image, clipped to it (empty
  // when nothing of it lies on the image).
  cv::Rect2f toImage(const cv::Rect2f& box) const;
};

// Resizes `image` (bilinear) to the largest size that fits `target` with its
// aspect ratio kept, centres it in `out` (target size, image's type) and fills
// the rest with `pad`. `out` is reused when it already has that size and type.
// Precondition: image not empty, target at least 1 x 1.
Letterbox letterbox(const cv::Mat& image, cv::Size target, const cv::Scalar& pad, cv::Mat& out);

}  // namespace KorvLumetra
