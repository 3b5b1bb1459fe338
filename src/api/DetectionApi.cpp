// The detection helpers' exported functions: checks at the boundary, then the
// detect module. The unmangled C symbols call their namespaced twins.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "api/ErrorLog.h"
#include "detect/DetectionDecoder.h"
#include "detect/LabelList.h"
#include "detect/Letterbox.h"
#include "detect/ObjectLocator.h"
#include "lumetra_depth.h"

namespace KorvLumetra {

namespace {

constexpr uint32_t kMaxSide = 1u << 15;  // pixels; keeps every byte count within 32 bits for 3 channels

// Scratch kept per calling thread, so that repeated calls do not allocate.
thread_local DetectionDecoder tDecoder;
thread_local std::vector<Detection> tDetections;
thread_local ObjectLocator tLocator;

int refuse(const char* function, const std::string& message) {
  logError(function, message.c_str());
  return 1;
}

Letterbox fromRecord(const LumoLetterbox& r) {
  Letterbox box;
  box.scale = r.scale;
  box.padLeft = r.pad_left;
  box.padTop = r.pad_top;
  box.source = cv::Size(static_cast<int>(r.source_width), static_cast<int>(r.source_height));
  box.target = cv::Size(static_cast<int>(r.target_width), static_cast<int>(r.target_height));
  return box;
}

// A letterbox record someone may have filled by hand: its mapping must be usable.
bool usable(const LumoLetterbox& r) {
  return std::isfinite(r.scale) && r.scale > 0.0f && r.source_width >= 1 && r.source_height >= 1 &&
         r.source_width <= kMaxSide && r.source_height <= kMaxSide;
}

void toRecord(const cv::Rect2f& box, LumoDetection* out) {
  out->x0 = box.x;
  out->y0 = box.y;
  out->x1 = box.x + box.width;
  out->y1 = box.y + box.height;
}

cv::Rect2f fromRecord(const LumoDetection& d) { return cv::Rect2f(d.x0, d.y0, d.x1 - d.x0, d.y1 - d.y0); }

}  // namespace

int KORV_LUMO_D_ReadLabels(const char* path, char* names, int capacity, int* count) {
  static const char* const kFunction = "KORV_LUMO_D_ReadLabels";
  if (path == nullptr || names == nullptr || count == nullptr) return refuse(kFunction, "allocate memory before calling");
  *count = 0;
  std::vector<std::string> labels;
  std::string error;
  if (!readLabelList(path, labels, error)) return refuse(kFunction, error);
  std::size_t needed = 0;
  for (const std::string& label : labels) needed += label.size() + 1;
  if (capacity < 0 || needed > static_cast<std::size_t>(capacity)) {
    return refuse(kFunction, "the names need " + std::to_string(needed) + " bytes, the buffer has " +
                                 std::to_string(capacity));
  }
  char* at = names;
  for (const std::string& label : labels) {
    std::memcpy(at, label.c_str(), label.size() + 1);
    at += label.size() + 1;
  }
  *count = static_cast<int>(labels.size());
  return 0;
}

int KORV_LUMO_D_Letterbox(const LumoImage* in, LumoImage* out, int padValue, LumoLetterbox* info) {
  static const char* const kFunction = "KORV_LUMO_D_Letterbox";
  if (in == nullptr || in->data == nullptr || out == nullptr || out->data == nullptr || info == nullptr) {
    return refuse(kFunction, "allocate memory before calling");
  }
  if (in->channels != 1 && in->channels != 3) {
    return refuse(kFunction, "image has " + std::to_string(in->channels) + " channels; 1 or 3 are taken");
  }
  const auto size = [](uint32_t w, uint32_t h) { return std::to_string(w) + "x" + std::to_string(h); };
  if (in->width < 1 || in->height < 1 || in->width > kMaxSide || in->height > kMaxSide) {
    return refuse(kFunction, "image size " + size(in->width, in->height) + " is not usable");
  }
  if (out->width < 1 || out->height < 1 || out->width > kMaxSide || out->height > kMaxSide) {
    return refuse(kFunction, "detector input size " + size(out->width, out->height) + " is not usable");
  }
  if (padValue < 0 || padValue > 255) {
    return refuse(kFunction, "pad value " + std::to_string(padValue) + " is outside 0..255");
  }
  const uint64_t needed = static_cast<uint64_t>(out->width) * out->height * in->channels;
  if (out->size < needed) {
    return refuse(kFunction, "output buffer has " + std::to_string(out->size) + " bytes, " +
                                 size(out->width, out->height) + " with " + std::to_string(in->channels) +
                                 " channels needs " + std::to_string(needed));
  }
  const int type = CV_8UC(static_cast<int>(in->channels));
  const cv::Mat image(static_cast<int>(in->height), static_cast<int>(in->width), type, in->data);
  cv::Mat target(static_cast<int>(out->height), static_cast<int>(out->width), type, out->data);
  const Letterbox box = letterbox(image, target.size(), cv::Scalar::all(padValue), target);

  out->tag0 = in->tag0;
  out->tag1 = in->tag1;
  out->timestamp = in->timestamp;
  out->format = in->format;
  out->channels = in->channels;
  out->stride = out->width * in->channels;
  out->size = static_cast<uint32_t>(needed);
  info->scale = box.scale;
  info->pad_left = box.padLeft;
  info->pad_top = box.padTop;
  info->source_width = in->width;
  info->source_height = in->height;
  info->target_width = out->width;
  info->target_height = out->height;
  return 0;
}

int KORV_LUMO_D_UnletterboxBoxes(const LumoLetterbox* info, LumoDetection* boxes, int count) {
  static const char* const kFunction = "KORV_LUMO_D_UnletterboxBoxes";
  if (count < 0) return refuse(kFunction, "count " + std::to_string(count) + " is negative");
  if (info == nullptr || (boxes == nullptr && count > 0)) return refuse(kFunction, "allocate memory before calling");
  if (!usable(*info)) return refuse(kFunction, "letterbox record has no usable scale or source size");
  const Letterbox box = fromRecord(*info);
  for (int i = 0; i < count; ++i) toRecord(box.toImage(fromRecord(boxes[i])), &boxes[i]);
  return 0;
}

int KORV_LUMO_D_DecodeDetections(const float* output, int rows, int columns, const LumoDecodeParams* params,
                                 const LumoLetterbox* letterbox, LumoDetection* out, int capacity, int* count) {
  static const char* const kFunction = "KORV_LUMO_D_DecodeDetections";
  if (output == nullptr || params == nullptr || out == nullptr || count == nullptr) {
    return refuse(kFunction, "allocate memory before calling");
  }
  *count = 0;
  if (rows < 1 || columns < 1) {
    return refuse(kFunction, "detector output of " + std::to_string(rows) + " x " + std::to_string(columns) +
                                 " values is empty");
  }
  if (capacity < 1) return refuse(kFunction, "capacity " + std::to_string(capacity) + " leaves no room for a box");
  if ((params->layout & ~(LUMO_DETECT_OBJECTNESS | LUMO_DETECT_TRANSPOSED)) != 0) {
    return refuse(kFunction, "unknown layout flags " + std::to_string(params->layout));
  }
  if (letterbox != nullptr && !usable(*letterbox)) {
    return refuse(kFunction, "letterbox record has no usable scale or source size");
  }
  DecodeSettings settings;
  settings.objectness = (params->layout & LUMO_DETECT_OBJECTNESS) != 0;
  settings.transposed = (params->layout & LUMO_DETECT_TRANSPOSED) != 0;
  settings.classCount = params->class_count;
  settings.scoreThreshold = params->score_threshold;
  settings.iouThreshold = params->iou_threshold;
  settings.maxBoxes = capacity;
  const cv::Mat matrix(rows, columns, CV_32FC1, const_cast<float*>(output));  // read only
  Letterbox box;
  if (letterbox != nullptr) box = fromRecord(*letterbox);
  std::string error;
  if (!tDecoder.decode(matrix, settings, letterbox != nullptr ? &box : nullptr, nullptr, tDetections, error)) {
    return refuse(kFunction, error);
  }
  for (std::size_t i = 0; i < tDetections.size(); ++i) {
    out[i].class_id = tDetections[i].classId;
    out[i].score = tDetections[i].score;
    toRecord(tDetections[i].box, &out[i]);
  }
  *count = static_cast<int>(tDetections.size());
  return 0;
}

int KORV_LUMO_D_LocateObjects(void* handle, const LumoDepthImage* depth, const LumoDetection* boxes, int count,
                              LumoObject* out) {
  static const char* const kFunction = "KORV_LUMO_D_LocateObjects";
  if (handle == nullptr) return 1;
  if (count < 0) return refuse(kFunction, "count " + std::to_string(count) + " is negative");
  if (depth == nullptr || depth->data == nullptr || (count > 0 && (boxes == nullptr || out == nullptr))) {
    return refuse(kFunction, "allocate memory before calling");
  }
  if (depth->channels != 1 || depth->width < 1 || depth->height < 1 || depth->width > kMaxSide ||
      depth->height > kMaxSide) {
    return refuse(kFunction, "depth image is " + std::to_string(depth->width) + "x" + std::to_string(depth->height) +
                                 " with " + std::to_string(depth->channels) +
                                 " channels; one channel of at least 1x1 is taken");
  }
  // The rectified projection describes exactly the depth images the handle hands out.
  LumoRectifyInfo rectify{};
  if (KorvLumetra::KORV_LUMO_D_GetRectifyInfo(handle, &rectify) != 0 || !(rectify.P1[0] > 0.0f) || !(rectify.P1[5] > 0.0f) ||
      !std::isfinite(rectify.P1[0]) || !std::isfinite(rectify.P1[5])) {
    return refuse(kFunction, "the handle has no calibration yet");
  }
  const PixelRay ray = pinholeRay(rectify.P1[0], rectify.P1[5], rectify.P1[2], rectify.P1[6]);
  const cv::Mat metres(static_cast<int>(depth->height), static_cast<int>(depth->width), CV_32FC1, depth->data);
  for (int i = 0; i < count; ++i) {
    const ObjectPosition p = tLocator.locate(metres, fromRecord(boxes[i]), ray);
    out[i] = LumoObject{static_cast<int32_t>(p.status), p.distance, p.validShare, {p.centre.x, p.centre.y, p.centre.z},
                        p.width, p.height};
  }
  return 0;
}

}  // namespace KorvLumetra

extern "C" {

int KORV_LUMO_D_ReadLabels(const char* path, char* names, int capacity, int* count) {
  return KorvLumetra::KORV_LUMO_D_ReadLabels(path, names, capacity, count);
}
int KORV_LUMO_D_Letterbox(const LumoImage* in, LumoImage* out, int padValue, LumoLetterbox* info) {
  return KorvLumetra::KORV_LUMO_D_Letterbox(in, out, padValue, info);
}
int KORV_LUMO_D_UnletterboxBoxes(const LumoLetterbox* info, LumoDetection* boxes, int count) {
  return KorvLumetra::KORV_LUMO_D_UnletterboxBoxes(info, boxes, count);
}
int KORV_LUMO_D_DecodeDetections(const float* output, int rows, int columns, const LumoDecodeParams* params,
                                 const LumoLetterbox* letterbox, LumoDetection* out, int capacity, int* count) {
  return KorvLumetra::KORV_LUMO_D_DecodeDetections(output, rows, columns, params, letterbox, out, capacity, count);
}
int KORV_LUMO_D_LocateObjects(void* handle, const LumoDepthImage* depth, const LumoDetection* boxes, int count,
                              LumoObject* out) {
  return KorvLumetra::KORV_LUMO_D_LocateObjects(handle, depth, boxes, count, out);
}

}  // extern "C"
