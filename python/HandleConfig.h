// What the binding must know of a configuration file before it hands the
// library any buffer: the sizes of every output, whether feeds wait for their
// depth, and whether alignment is on. Read with the library's own YAML reader
// and conversions, so the binding sees the file exactly as the library does.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace LumoPython {

struct ImageSize {
  int width = 0;
  int height = 0;
  // Pixels, 0 for a degenerate size.
  std::size_t area() const;
};

// A configuration the binding refuses before creating a handle: a missing
// required key would end the process inside the library, a value that is not
// a number would throw out of it.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct HandleConfig {
  bool moduleEnabled = true;
  bool hasCalibration = false;  // calib_path set: maps and engines exist after creation
  bool asyncMode = true;        // absent key: the pipeline's own default, asynchronous
  bool restoreDepthDim = true;
  int alignCamId = -1;          // -1: no alignment
  bool alignDirection = false;  // true: depth registered into the aligned camera
  ImageSize stereoInput, stereoWorking;  // one view
  ImageSize auxInput, auxWorking;

  // Reads the file; throws ConfigError naming the key(s) at fault. The file
  // must exist (the library itself refuses a missing one with an error line).
  static HandleConfig read(const std::string& path);

  bool alignEnabled() const { return alignCamId != -1; }

  // Upper bounds of what the library can write, whichever of its paths runs:
  // floats of depth, floats of disparity, bytes of the aligned colour image,
  // bytes of the rectified stacked pair, points of a cloud.
  std::size_t depthCapacity() const;
  std::size_t disparityCapacity() const;
  std::size_t alignedCapacity() const;
  std::size_t rectifiedCapacity() const;
  std::size_t cloudCapacity() const;

 private:
  // Camera 0 and 1 are the stereo views, 2 the auxiliary camera.
  ImageSize input(int camera) const;
  ImageSize working(int camera) const;
  // Where the library brings a camera's outputs: input size when restoring.
  ImageSize target(int camera) const;
};

}  // namespace LumoPython
