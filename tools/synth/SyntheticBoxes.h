// Ground-truth boxes of a synthetic scene's objects, as a detector would draw
// them on the rectified left view, with their true distances: test and demo
// input for placing detected objects in 3-D without a detector model.
#pragma once

#include "synth/SyntheticStereo.h"

#include <string>
#include <vector>

namespace LumoSynth {

struct ObjectBox {
  std::string kind;        // "box" or "sphere"
  int x0 = 0, y0 = 0;      // top-left corner; pixel (u, v) covers [u, u + 1) x [v, v + 1)
  int x1 = 0, y1 = 0;      // bottom-right corner (exclusive)
  int pixels = 0;          // pixels where the object is visible
  // Median true depth (upper middle) of the object's visible pixels whose
  // centres lie in the middle half of the box (half its width and height),
  // or of all its visible pixels when none do. Metres.
  double distance = 0.0;
};

// The scene's boxes, then its spheres, in the rectified view `rect` at a
// frame: each box spans the pixels where that object is the nearest surface
// (so occluded parts are left out). Objects with fewer than minPixels visible
// pixels are left out.
std::vector<ObjectBox> objectBoxes(const Rectification& rect, const Scene& scene, int frame, int minPixels = 64);

// The boxes of frames 0 .. frames - 1 in the rectified left view at the
// cameras' own size (the depth images of a run that restores the input size)
// as CSV: the header "frame,class,score,x0,y0,x1,y1,true_distance", then a row
// per box with score 1. Throws std::runtime_error when it cannot write.
void writeObjectBoxes(const std::string& path, const Rig& rig, const Scene& scene, int frames);

}  // namespace LumoSynth
