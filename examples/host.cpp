// A minimal host in C++: depth and a 3-D point from one stacked stereo frame
// (left view above right view) read from an image file.
//
// usage: host_cpp CONFIG FRAME.png
#include <cstdio>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "lumetra_depth.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s CONFIG FRAME.png\n", argv[0]);
    return 2;
  }
  const cv::Mat frame = cv::imread(argv[2], cv::IMREAD_GRAYSCALE);
  if (frame.empty()) {
    std::fprintf(stderr, "cannot read %s\n", argv[2]);
    return 1;
  }

  void* handle = nullptr;
  KORV_LUMO_D_CreateHandleWithConfig(&handle, argv[1]);  // 0 even for a faulty file: the feed tells

  LumoImage image{};
  image.timestamp = 1;  // any non-zero value of the host's clock
  image.width = frame.cols;
  image.height = frame.rows;
  image.channels = 1;
  image.stride = frame.cols;
  image.size = frame.cols * frame.rows;
  image.data = frame.data;

  // Room for one view at the input size: depth as handed out with restore_depth_dim on.
  std::vector<float> depth(frame.total() / 2);
  LumoDepthImage out{};
  out.data = depth.data();
  int status = KORV_LUMO_D_FeedStereoImage(handle, &image);  // waits for the depth (async_mode 0)
  if (status == 0) status = KORV_LUMO_D_GetDepthImage(handle, &out, nullptr, nullptr);
  if (status == 0) {
    const int centre[2] = {static_cast<int>(out.width / 2), static_cast<int>(out.height / 2)};
    float xyz[3] = {0.0f, 0.0f, 0.0f};
    KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, centre, 1, &out, xyz);  // C++ only
    std::printf("depth %ux%u; centre pixel at depth %.3f, point (%.3f, %.3f, %.3f)\n", out.width, out.height,
                depth[centre[1] * out.width + centre[0]], xyz[0], xyz[1], xyz[2]);
  } else {
    std::fprintf(stderr, "no depth (see the library's message above)\n");
  }

  KORV_LUMO_D_DestroyHandle(handle);
  return status;
}
