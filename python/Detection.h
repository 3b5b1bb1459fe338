// The detection helpers for Python: label lists, letterboxing, decoding a
// detector's output, and the records they hand out (Letterbox, Detection,
// LocatedObject). Each function checks its arguments, sizes every output
// itself and releases the GIL while the library works.
#pragma once

#include <array>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "lumetra_depth.h"

namespace LumoPython {

// How an image was fitted into a detector's input (the library's record).
struct Letterbox {
  LumoLetterbox record{};
};

// One box of a detector, in the pixels of the image it was mapped onto.
struct Detection {
  int classId = 0;
  pybind11::object label = pybind11::none();  // the class name, or None without labels
  float score = 0.0f;
  std::array<float, 4> box{};  // x0, y0, x1, y1
};

// Where the object of one box is.
struct LocatedObject {
  std::string status;  // "located", "no_depth" or "outside"
  float distance = 0.0f;
  float validShare = 0.0f;
  pybind11::array centre;  // float32 (3,)
  float width = 0.0f;
  float height = 0.0f;
};

pybind11::list readLabels(const pybind11::object& path);

// (letterboxed image, Letterbox).
pybind11::tuple letterbox(const pybind11::object& image, const pybind11::object& width,
                          const pybind11::object& height, const pybind11::object& pad);

// Boxes as they came: an (N, 4) float32 array, or a list of Detection.
pybind11::object unletterbox(const pybind11::object& info, const pybind11::object& boxes);

pybind11::list decodeDetections(const pybind11::object& output, const pybind11::object& scoreThreshold,
                                const pybind11::object& iouThreshold, const pybind11::object& maxBoxes,
                                bool objectness, bool transposed, const pybind11::object& classCount,
                                const pybind11::object& letterbox, const pybind11::object& labels);

// Boxes for the library: an array-like (N, 4) of x0, y0, x1, y1 or a
// sequence of Detection.
std::vector<LumoDetection> boxRecords(const pybind11::object& boxes, const char* name);

// The Python record of one library result.
LocatedObject locatedObject(const LumoObject& object);

}  // namespace LumoPython
