// The object behind lumetra_depth.Depth: one library handle, the sizes of its
// outputs, and the calls of the exported functions with their checks.
//
// Threads: any Python thread may call any method; the GIL is released while
// the library works or waits. close() (also from the destructor) refuses new
// calls, waits for the calls under way and then destroys the handle.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "HandleConfig.h"

namespace LumoPython {

struct DepthResult {
  pybind11::array depth;      // float32 (H, W)
  pybind11::array disparity;  // float32 at the working size
  pybind11::object aligned;   // uint8 image or None
  uint64_t timestamp = 0;
  uint32_t tag0 = 0, tag1 = 0;
};

class DepthCamera {
 public:
  explicit DepthCamera(const std::string& configPath);
  ~DepthCamera();
  DepthCamera(const DepthCamera&) = delete;
  DepthCamera& operator=(const DepthCamera&) = delete;

  void close();
  bool closed();

  void feedStereo(const pybind11::object& frame, const pybind11::object& timestamp, const pybind11::object& tag0,
                  const pybind11::object& tag1);
  void feedStereoPair(const pybind11::object& left, const pybind11::object& right, const pybind11::object& timestamp,
                      const pybind11::object& tag0, const pybind11::object& tag1);
  void feedColour(const pybind11::object& image, const pybind11::object& timestamp);
  void feedPose(const pybind11::object& timestamp, const pybind11::object& position,
                const pybind11::object& orientation);

  DepthResult depth();
  pybind11::array rectified();
  pybind11::dict rectifyInfo();
  pybind11::tuple pointCloud();
  pybind11::array coordinates(const pybind11::object& pixels, const pybind11::object& depth);
  pybind11::list locateObjects(const pybind11::object& depth, const pybind11::object& boxes);

  const std::string& configPath() const { return configPath_; }
  const HandleConfig& config() const { return config_; }

 private:
  // Marks one call under way; throws when the handle is closed.
  class Call {
   public:
    explicit Call(DepthCamera& camera);
    ~Call();
    void* handle() const { return handle_; }

   private:
    DepthCamera& camera_;
    void* handle_;  // stays valid until the call ends, even when close() has begun
  };

  void feed(const pybind11::array& stacked, uint64_t timestamp, uint32_t tag0, uint32_t tag1);
  void destroy();

  std::string configPath_;
  HandleConfig config_;
  std::mutex mutex_;                 // guards handle_ and active_
  std::condition_variable idle_;     // active_ dropped to 0
  void* handle_ = nullptr;
  int active_ = 0;
};

}  // namespace LumoPython
