// The detection helpers through their exported functions, against plain
// references written here, and the refusals a host meets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "detect/ObjectLocator.h"
#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/TempDir.h"

namespace {

using LumoTest::captureStdout;
using LumoTest::TempDir;

// The message of the one error line printed by `call`, which must answer 1.
template <typename Call>
std::string refusal(Call call) {
  int status = 0;
  const std::string printed = captureStdout([&] { status = call(); });
  EXPECT_EQ(status, 1);
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
  const std::size_t at = printed.find("(): ");
  return at == std::string::npos ? printed : printed.substr(at + 4, printed.size() - at - 5);
}

TEST(LabelList, NamesInFileOrderAndOneLineForEachBadFile) {
  const TempDir dir;
  const std::string big = std::string(1 << 20, 'x');
  struct Case {
    std::string name, content;
    std::vector<std::string> names;  // expected, or empty with `error`
    std::string error;
  };
  const std::vector<Case> cases = {
      {"good.txt", "\xEF\xBB\xBFperson\r\n# not a name\n\n  \t\ncar  \t\r\nStra\xC3\x9F" "e\n#", {"person", "car", "Stra\xC3\x9F" "e"}, ""},
      {"exactly_1mb.txt", big.substr(0, (1 << 20) - 1) + "\n", {big.substr(0, (1 << 20) - 1)}, ""},
      {"missing.txt", "", {}, "cannot read label list '$': No such file or directory"},
      {"folder", "", {}, "cannot read label list '$': Is a directory"},
      {"large.txt", big + "\n", {}, "label list '$' is 1048577 bytes, more than the 1 MB allowed"},
      {"empty.txt", "", {}, "label list '$' has no class names"},
      {"comments.txt", "# only\n\n", {}, "label list '$' has no class names"},
      {"latin1.txt", "dog\nch\xE9vre\n", {}, "label list '$' line 2 is not UTF-8"},
      {"nul.txt", std::string("a\nb\0c\n", 6), {}, "label list '$' line 2 holds a NUL byte"},
  };
  for (const Case& c : cases) {
    const std::string path = dir.file(c.name);
    if (c.name == "folder") std::filesystem::create_directory(path);
    if (c.name != "folder" && c.name != "missing.txt") LumoTest::writeText(path, c.content);
    std::vector<char> names(c.content.size() + 1, '?');
    int count = -1;
    if (!c.error.empty()) {
      std::string expected = c.error;
      expected.replace(expected.find('$'), 1, path);
      EXPECT_EQ(refusal([&] { return KORV_LUMO_D_ReadLabels(path.c_str(), names.data(), int(names.size()), &count); }),
                expected);
      EXPECT_EQ(count, 0) << c.name;
      continue;
    }
    ASSERT_EQ(KORV_LUMO_D_ReadLabels(path.c_str(), names.data(), static_cast<int>(names.size()), &count), 0) << c.name;
    std::vector<std::string> got;
    for (const char* at = names.data(); static_cast<int>(got.size()) < count; at += got.back().size() + 1) got.emplace_back(at);
    EXPECT_EQ(got, c.names) << c.name;
  }
  // One byte short of the names and their terminators (7 + 4 + 8 bytes) is refused.
  std::vector<char> names(18);
  int count = -1;
  EXPECT_EQ(refusal([&] { return KORV_LUMO_D_ReadLabels(dir.file("good.txt").c_str(), names.data(), 18, &count); }),
            "the names need 19 bytes, the buffer has 18");
}

// A bright rectangle letterboxed and found again: where the detector sees it
// must map back to where it is, for every shape of image and input. (Clipping
// to the image is checked with the decoder.)
TEST(Letterbox, BoxesRoundTripOnOddSizes) {
  const struct {
    cv::Size image, input;
    int channels;
  } cases[] = {{{301, 517}, {320, 320}, 3},  // portrait: padded left and right
               {{641, 359}, {416, 256}, 1},  // landscape into a wider input: padded above and below
               {{320, 240}, {640, 480}, 3},  // exact fit, enlarged: no padding
               {{97, 61}, {97, 61}, 1}};     // same size: copied
  for (const auto& c : cases) {
    cv::Mat image(c.image, CV_8UC(c.channels), cv::Scalar::all(0));
    const cv::Rect truth(c.image.width / 5, c.image.height / 3, c.image.width / 2, c.image.height / 4);
    image(truth).setTo(cv::Scalar::all(255));
    LumoImage in{7, 8, 99, static_cast<uint32_t>(c.image.width), static_cast<uint32_t>(c.image.height),
                 static_cast<uint32_t>(c.channels), 5, 0, 0, 0, image.data};
    std::vector<uint8_t> buffer(static_cast<std::size_t>(c.input.area()) * c.channels);
    LumoImage out{0, 0, 0, uint32_t(c.input.width), uint32_t(c.input.height), 0, 0, 0, 0, uint32_t(buffer.size()),
                  buffer.data()};
    LumoLetterbox info{};
    ASSERT_EQ(KORV_LUMO_D_Letterbox(&in, &out, 114, &info), 0);
    EXPECT_EQ(out.timestamp, 99u);
    EXPECT_EQ(out.stride, out.width * in.channels);

    // The resized image: scale min(W/w, H/h), size rounded, centred with the odd pixel right or below.
    const double scale = std::min(double(c.input.width) / c.image.width, double(c.input.height) / c.image.height);
    const int width = static_cast<int>(std::lround(c.image.width * scale));
    const int height = static_cast<int>(std::lround(c.image.height * scale));
    EXPECT_FLOAT_EQ(info.scale, static_cast<float>(scale));
    EXPECT_EQ(info.pad_left, (c.input.width - width) / 2);
    EXPECT_EQ(info.pad_top, (c.input.height - height) / 2);
    const cv::Mat picture(c.input, CV_8UC(c.channels), buffer.data());
    cv::Mat grey;
    cv::extractChannel(picture, grey, 0);
    const cv::Rect inside(info.pad_left, info.pad_top, width, height);
    cv::Mat padding = grey.clone();
    padding(inside).setTo(114);
    EXPECT_EQ(cv::countNonZero(padding != 114), 0);

    const cv::Rect seen = cv::boundingRect(grey > 128);
    LumoDetection box{0, 1.0f, float(seen.x), float(seen.y), float(seen.br().x), float(seen.br().y)};
    ASSERT_EQ(KORV_LUMO_D_UnletterboxBoxes(&info, &box, 1), 0);
    // The bilinear edge moves by up to a detector pixel: that is 1/scale image pixels.
    const float tolerance = static_cast<float>(1.0 / scale) + 0.01f;
    EXPECT_NEAR(box.x0, truth.x, tolerance);
    EXPECT_NEAR(box.y0, truth.y, tolerance);
    EXPECT_NEAR(box.x1, truth.br().x, tolerance);
    EXPECT_NEAR(box.y1, truth.br().y, tolerance);
  }
}

// Plainly: best class per box, threshold, then per class in score order a
// box survives unless it overlaps a kept one by more than the IoU threshold.
std::vector<LumoDetection> referenceDecode(const std::vector<float>& rows, int width, bool objectness, int classes,
                                           float threshold, float iou, int capacity, const LumoLetterbox* box) {
  std::vector<LumoDetection> candidates;
  for (std::size_t i = 0; i * width < rows.size(); ++i) {
    const float* r = &rows[i * width];
    const int first = objectness ? 5 : 4;
    const int best = static_cast<int>(std::max_element(r + first, r + first + classes) - (r + first));
    const float score = objectness ? r[4] * r[first + best] : r[first + best];
    if (score >= threshold && score > 0.0f) {
      candidates.push_back({best, score, r[0] - 0.5f * r[2], r[1] - 0.5f * r[3], r[0] + 0.5f * r[2], r[1] + 0.5f * r[3]});
    }
  }
  std::stable_sort(candidates.begin(), candidates.end(), [](auto& a, auto& b) { return a.score > b.score; });
  const auto area = [](const LumoDetection& d) { return double(d.x1 - d.x0) * (d.y1 - d.y0); };
  std::vector<LumoDetection> kept;
  for (const LumoDetection& c : candidates) {
    bool keep = true;
    for (const LumoDetection& k : kept) {
      const double w = std::min(c.x1, k.x1) - std::max(c.x0, k.x0), h = std::min(c.y1, k.y1) - std::max(c.y0, k.y0);
      const double overlap = w > 0 && h > 0 ? w * h : 0.0;
      keep = keep && (k.class_id != c.class_id || overlap / (area(c) + area(k) - overlap) <= iou);
    }
    if (keep) kept.push_back(c);
  }
  std::vector<LumoDetection> out;
  for (LumoDetection d : kept) {
    if (box != nullptr) {
      const auto map = [&](float v, int pad, uint32_t size) {
        return std::clamp((v - pad) / box->scale, 0.0f, float(size));
      };
      d = {d.class_id, d.score, map(d.x0, box->pad_left, box->source_width), map(d.y0, box->pad_top, box->source_height),
           map(d.x1, box->pad_left, box->source_width), map(d.y1, box->pad_top, box->source_height)};
      if (d.x1 <= d.x0 || d.y1 <= d.y0) continue;
    }
    if (static_cast<int>(out.size()) < capacity) out.push_back(d);
  }
  return out;
}

TEST(DetectionDecoder, MatchesAPlainReferenceOnRandomRows) {
  std::mt19937 random(18);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  const int classes = 3, count = 400;
  const LumoLetterbox letterbox{0.5f, 20, 35, 300, 220, 200, 200};
  for (int layout = 0; layout < 4; ++layout) {
    const bool objectness = (layout & LUMO_DETECT_OBJECTNESS) != 0, transposed = (layout & LUMO_DETECT_TRANSPOSED) != 0;
    const int width = 4 + objectness + classes;
    std::vector<float> rows(static_cast<std::size_t>(count) * width);
    for (int i = 0; i < count; ++i) {
      float* r = &rows[static_cast<std::size_t>(i) * width];
      r[0] = 200.0f * unit(random), r[1] = 200.0f * unit(random);  // crowded, so that boxes overlap
      r[2] = 5.0f + 60.0f * unit(random), r[3] = 5.0f + 60.0f * unit(random);
      for (int a = 4; a < width; ++a) r[a] = unit(random);
    }
    std::vector<float> stored = rows;  // as the detector stores it
    if (transposed) cv::transpose(cv::Mat(count, width, CV_32F, rows.data()), cv::Mat(width, count, CV_32F, stored.data()));
    for (const auto& [threshold, iou, capacity, box] : {std::tuple{0.3f, 0.45f, 1000, (const LumoLetterbox*)nullptr},
                                                       std::tuple{0.05f, 0.2f, 25, &letterbox},
                                                       std::tuple{0.6f, 0.7f, 1000, &letterbox}}) {
      const LumoDecodeParams params{static_cast<uint32_t>(layout), classes, threshold, iou};
      std::vector<LumoDetection> out(static_cast<std::size_t>(capacity));
      int n = -1;
      ASSERT_EQ(KORV_LUMO_D_DecodeDetections(stored.data(), transposed ? width : count, transposed ? count : width,
                                             &params, box, out.data(), capacity, &n), 0);
      const std::vector<LumoDetection> expected =
          referenceDecode(rows, width, objectness, classes, threshold, iou, capacity, box);
      ASSERT_EQ(n, static_cast<int>(expected.size())) << "layout " << layout << " threshold " << threshold;
      EXPECT_GT(n, 5);
      for (int i = 0; i < n; ++i) {
        EXPECT_EQ(out[i].class_id, expected[i].class_id) << i;
        EXPECT_EQ(out[i].score, expected[i].score) << i;
        EXPECT_NEAR(out[i].x0, expected[i].x0, 1e-3f) << i;
        EXPECT_NEAR(out[i].y1, expected[i].y1, 1e-3f) << i;
      }
    }
  }
}

TEST(DetectionDecoder, BadOutputIsRefusedWithOneLine) {
  std::vector<float> rows = {50, 50, 10, 10, 0.9f, 0.1f, 60, 60, 10, 10, 0.2f, 0.8f};  // two boxes, two classes
  const LumoDecodeParams params{0, 2, 0.5f, 0.5f};
  LumoDetection out[4];
  int n = -1;
  const auto decode = [&](const LumoDecodeParams& p, int rowCount, int columns) {
    return refusal([&] { return KORV_LUMO_D_DecodeDetections(rows.data(), rowCount, columns, &p, nullptr, out, 4, &n); });
  };
  EXPECT_EQ(decode(params, 0, 6), "detector output of 0 x 6 values is empty");
  EXPECT_EQ(n, 0);
  EXPECT_EQ(decode(params, 2, 5), "detector output has 5 values per box, the layout wants 6 (4 box values, 2 class scores)");
  EXPECT_EQ(decode({LUMO_DETECT_OBJECTNESS, 2, 0.5f, 0.5f}, 2, 6),
            "detector output has 6 values per box, the layout wants 7 (4 box values, objectness, 2 class scores)");
  EXPECT_EQ(decode({0, 2, 1.5f, 0.5f}, 2, 6), "score and IoU thresholds must lie in [0, 1]");
  rows[11] = NAN;
  EXPECT_EQ(decode(params, 2, 6), "box 1 of the detector output has a class score that is not a number");
  rows[11] = 0.8f;
  rows[6] = INFINITY;  // box 1 passes the threshold
  EXPECT_EQ(decode(params, 2, 6), "box 1 of the detector output has a coordinate that is not a number");
  rows[0] = NAN, rows[4] = 0.1f;  // below the threshold a box is not looked at
  rows[6] = 60;
  ASSERT_EQ(KORV_LUMO_D_DecodeDetections(rows.data(), 2, 6, &params, nullptr, out, 4, &n), 0);
  ASSERT_EQ(n, 1);
  EXPECT_EQ(out[0].class_id, 1);
  EXPECT_EQ(out[0].x0, 55.0f);
}

// Depth made by hand: the middle of a box holds a known set of values.
TEST(ObjectLocator, MedianOfTheBoxMiddleAtTheCentreRayOrAnExplicitNoDepth) {
  cv::Mat depth(30, 40, CV_32FC1, cv::Scalar(100.0f));
  // Box (10, 10)-(30, 20): its middle is columns 15..24 and rows 12..16 (pixel
  // centres within [15, 25) x [12.5, 17.5)), 50 pixels holding 1..50 shuffled.
  std::vector<float> values(50);
  std::iota(values.begin(), values.end(), 1.0f);
  std::shuffle(values.begin(), values.end(), std::mt19937(3));
  for (int i = 0; i < 50; ++i) depth.at<float>(12 + i / 10, 15 + i % 10) = values[i];
  const float fx = 50.0f, fy = 40.0f, cx = 17.0f, cy = 12.0f;
  KorvLumetra::ObjectLocator locator;
  const KorvLumetra::PixelRay ray = KorvLumetra::pinholeRay(fx, fy, cx, cy);
  KorvLumetra::ObjectPosition p = locator.locate(depth, cv::Rect2f(10, 10, 20, 10), ray);
  ASSERT_EQ(p.status, KorvLumetra::ObjectStatus::Located);
  EXPECT_EQ(p.distance, 26.0f);  // upper middle of 1..50
  EXPECT_EQ(p.validShare, 1.0f);
  EXPECT_NEAR(p.centre.x, (19.5f - cx) / fx * 26.0f, 1e-5f);  // box centre (20, 15) is pixel position (19.5, 14.5)
  EXPECT_NEAR(p.centre.y, (14.5f - cy) / fy * 26.0f, 1e-5f);
  EXPECT_NEAR(p.width, 20.0f / fx * 26.0f, 1e-4f);
  EXPECT_NEAR(p.height, 10.0f / fy * 26.0f, 1e-4f);

  // 12 of the 50 with depth is under a quarter: no position; 13 is enough.
  // Zero, negative, NaN and infinity are all "no depth".
  const float none[] = {0.0f, -1.0f, NAN, INFINITY};
  for (int i = 0; i < 50; ++i) depth.at<float>(12 + i / 10, 15 + i % 10) = i < 12 ? 3.0f : none[i % 4];
  p = locator.locate(depth, cv::Rect2f(10, 10, 20, 10), ray);
  EXPECT_EQ(p.status, KorvLumetra::ObjectStatus::NoDepth);
  EXPECT_EQ(p.distance, 0.0f);
  EXPECT_FLOAT_EQ(p.validShare, 0.24f);
  depth.at<float>(16, 24) = 3.0f;
  p = locator.locate(depth, cv::Rect2f(10, 10, 20, 10), ray);
  EXPECT_EQ(p.status, KorvLumetra::ObjectStatus::Located);
  EXPECT_EQ(p.distance, 3.0f);

  // Boxes are clipped to the image; off it, empty or not finite they are Outside.
  depth.setTo(2.0f);
  p = locator.locate(depth, cv::Rect2f(-20, -20, 30, 30), ray);  // (0, 0)-(10, 10) remains
  EXPECT_NEAR(p.centre.x, (4.5f - cx) / fx * 2.0f, 1e-5f);
  EXPECT_NEAR(p.width, 10.0f / fx * 2.0f, 1e-5f);
  for (const cv::Rect2f& off : {cv::Rect2f(40, 0, 5, 5), cv::Rect2f(5, 5, 0, 3), cv::Rect2f(NAN, 5, 3, 3),
                                cv::Rect2f(5, 5, INFINITY, 3)}) {
    EXPECT_EQ(locator.locate(depth, off, ray).status, KorvLumetra::ObjectStatus::Outside) << off;
  }
}

TEST(LocateObjects, RefusesWhatItCannotUseAndTheHostCarriesOn) {
  void* handle = nullptr;
  captureStdout([&] { KORV_LUMO_D_CreateHandleWithConfig(&handle, "/nonexistent/config.yaml"); });
  std::vector<float> pixels(4 * 3, 1.0f);
  LumoDepthImage depth{0, 0, 0, 4, 3, 1, 0, 0, 16, 48, pixels.data()};
  const LumoDetection box{0, 1.0f, 0, 0, 2, 2};
  LumoObject object{};
  EXPECT_EQ(captureStdout([&] { EXPECT_EQ(KORV_LUMO_D_LocateObjects(nullptr, &depth, &box, 1, &object), 1); }), "");
  EXPECT_EQ(refusal([&] { return KORV_LUMO_D_LocateObjects(handle, &depth, &box, 1, &object); }),
            "the handle has no calibration yet");
  EXPECT_EQ(refusal([&] { return KORV_LUMO_D_LocateObjects(handle, &depth, nullptr, 1, &object); }),
            "allocate memory before calling");
  EXPECT_EQ(refusal([&] { return KORV_LUMO_D_LocateObjects(handle, &depth, &box, -1, &object); }),
            "count -1 is negative");
  depth.channels = 2;
  EXPECT_EQ(refusal([&] { return KORV_LUMO_D_LocateObjects(handle, &depth, &box, 1, &object); }),
            "depth image is 4x3 with 2 channels; one channel of at least 1x1 is taken");
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
}

}  // namespace
