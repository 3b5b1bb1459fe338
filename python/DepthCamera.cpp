#include "DepthCamera.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <vector>

#include "ArrayChecks.h"
#include "Detection.h"
#include "Errors.h"
#include "StdoutCapture.h"
#include "lumetra_depth.h"

namespace py = pybind11;

namespace LumoPython {

namespace {

constexpr uint64_t kLargestStamp = UINT64_MAX;
// The synchronous wait lasts about 2 s; every refusal comes back at once.
constexpr double kTimeoutSeconds = 1.0;

// The first `used` elements of a flat buffer in `shape`. Copied out when they
// fill less than half of it, so that a small result does not keep a large
// buffer alive.
py::array shaped(const py::array& buffer, std::size_t used, const std::vector<py::ssize_t>& shape) {
  py::tuple dims(shape.size());
  for (std::size_t i = 0; i < shape.size(); ++i) dims[i] = shape[i];
  py::array view = buffer[py::slice(0, static_cast<py::ssize_t>(used), 1)].attr("reshape")(dims);
  if (2 * used < static_cast<std::size_t>(buffer.size())) view = view.attr("copy")();
  return view;
}

// The library copies `size` bytes into a buffer of `capacity` bytes; the
// header it writes must describe exactly those bytes, in a channel count the
// binding can shape (1, or 3 where `colour`).
void checkHeader(const char* what, uint32_t width, uint32_t height, uint32_t channels, uint32_t size,
                 std::size_t elementBytes, std::size_t capacity, bool colour) {
  const uint64_t expected = static_cast<uint64_t>(width) * height * channels * elementBytes;
  if (size != expected || size > capacity || !(channels == 1 || (colour && channels == 3))) {
    char text[256];
    std::snprintf(text, sizeof(text), "%s: the library wrote a %ux%u image of %u channel(s) in %u bytes, "
                  "the binding expected at most %zu bytes", what, width, height, channels, size, capacity);
    throw Error(text);
  }
}

bool fileExists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

}  // namespace

DepthCamera::Call::Call(DepthCamera& camera) : camera_(camera) {
  std::lock_guard<std::mutex> lock(camera_.mutex_);
  if (camera_.handle_ == nullptr) throw Error("the lumetra_depth.Depth object is closed");
  handle_ = camera_.handle_;
  ++camera_.active_;
}

DepthCamera::Call::~Call() {
  std::lock_guard<std::mutex> lock(camera_.mutex_);
  if (--camera_.active_ == 0) camera_.idle_.notify_all();
}

DepthCamera::DepthCamera(const std::string& configPath) : configPath_(configPath) {
  if (!fileExists(configPath)) throw Error(configPath + ": no such file");
  try {
    config_ = HandleConfig::read(configPath);
  } catch (const ConfigError& e) {
    throw Error(configPath + ": " + e.what());
  }
  // Creation reports a refused configuration or calibration only by error
  // lines on standard output; they are read there and raised.
  flushPythonStdout();
  void* handle = nullptr;
  std::vector<std::string> errors;
  {
    py::gil_scoped_release release;
    StdoutCapture capture;
    try {
      KORV_LUMO_D_CreateHandleWithConfig(&handle, configPath.c_str());
    } catch (const std::exception& e) {
      errors.push_back(e.what());
    }
    for (const std::string& line : errorLines(capture.finish())) errors.push_back(line);
    if (!errors.empty() && handle != nullptr) {
      KORV_LUMO_D_DestroyHandle(handle);
      handle = nullptr;
    }
  }
  if (!errors.empty()) {
    std::string message = "KORV_LUMO_D_CreateHandleWithConfig refused " + configPath + ": ";
    for (std::size_t i = 0; i < errors.size(); ++i) message += (i > 0 ? "; " : "") + errors[i];
    throw Error(message);
  }
  handle_ = handle;
}

DepthCamera::~DepthCamera() {
  // No method can be running: each holds a reference to the object.
  if (handle_ != nullptr) KORV_LUMO_D_DestroyHandle(handle_);
}

void DepthCamera::close() {
  py::gil_scoped_release release;  // calls under way may need the GIL to finish
  std::unique_lock<std::mutex> lock(mutex_);
  void* handle = handle_;
  handle_ = nullptr;
  idle_.wait(lock, [this] { return active_ == 0; });
  lock.unlock();
  if (handle != nullptr) KORV_LUMO_D_DestroyHandle(handle);
}

bool DepthCamera::closed() {
  std::lock_guard<std::mutex> lock(mutex_);
  return handle_ == nullptr;
}

void DepthCamera::feedStereo(const py::object& frame, const py::object& timestamp, const py::object& tag0,
                             const py::object& tag1) {
  const py::array stacked = uint8Image(frame, "frame", true);
  const ImageSize view = config_.stereoInput;
  if (stacked.shape(0) != 2 * static_cast<py::ssize_t>(view.height) || stacked.shape(1) != view.width) {
    throw py::value_error("frame: expected shape (" + std::to_string(2 * view.height) + ", " +
                          std::to_string(view.width) + ") or (" + std::to_string(2 * view.height) + ", " +
                          std::to_string(view.width) + ", 3), both views of " + std::to_string(view.width) + "x" +
                          std::to_string(view.height) + " stacked, got " + shapeText(stacked));
  }
  feed(stacked, integer(timestamp, "timestamp", 1, kLargestStamp), static_cast<uint32_t>(integer(tag0, "tag0", 0, UINT32_MAX)),
       static_cast<uint32_t>(integer(tag1, "tag1", 0, UINT32_MAX)));
}

void DepthCamera::feedStereoPair(const py::object& left, const py::object& right, const py::object& timestamp,
                                 const py::object& tag0, const py::object& tag1) {
  // Copied into one stacked frame anyway, so views of any layout are taken.
  const py::array l = uint8Image(left, "left", false), r = uint8Image(right, "right", false);
  const ImageSize view = config_.stereoInput;
  for (const py::array* half : {&l, &r}) {
    if (half->shape(0) != view.height || half->shape(1) != view.width || half->ndim() != l.ndim()) {
      throw py::value_error(std::string(half == &l ? "left" : "right") + ": expected shape (" +
                            std::to_string(view.height) + ", " + std::to_string(view.width) + ")" +
                            (l.ndim() == 3 ? " with 3 channels" : "") + " like the configured view, got " +
                            shapeText(*half));
    }
  }
  const py::array stacked = py::module_::import("numpy").attr("concatenate")(py::make_tuple(l, r));
  feed(stacked, integer(timestamp, "timestamp", 1, kLargestStamp), static_cast<uint32_t>(integer(tag0, "tag0", 0, UINT32_MAX)),
       static_cast<uint32_t>(integer(tag1, "tag1", 0, UINT32_MAX)));
}

void DepthCamera::feed(const py::array& stacked, uint64_t timestamp, uint32_t tag0, uint32_t tag1) {
  LumoImage frame{};
  frame.tag0 = tag0;
  frame.tag1 = tag1;
  frame.timestamp = timestamp;
  frame.width = static_cast<uint32_t>(stacked.shape(1));
  frame.height = static_cast<uint32_t>(stacked.shape(0));
  frame.channels = stacked.ndim() == 3 ? 3 : 1;
  frame.stride = frame.width * frame.channels;
  frame.size = frame.stride * frame.height;
  frame.data = static_cast<uint8_t*>(const_cast<void*>(stacked.data()));
  int status;
  double seconds;
  {
    Call call(*this);
    py::gil_scoped_release release;
    const auto start = std::chrono::steady_clock::now();
    status = KORV_LUMO_D_FeedStereoImage(call.handle(), &frame);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  if (status == 0) return;
  if (!config_.asyncMode && seconds >= kTimeoutSeconds) {
    char text[160];
    std::snprintf(text, sizeof(text), "feed_stereo: no depth for time stamp %llu after %.1f s",
                  static_cast<unsigned long long>(timestamp), seconds);
    throw Timeout(text);
  }
  std::string reason = "the library's error line on standard output says why";
  if (!config_.moduleEnabled) reason = "enable_module is 0 in the configuration";
  if (!config_.hasCalibration) reason = "the configuration names no calib_path";
  throw Error("KORV_LUMO_D_FeedStereoImage refused the frame (" + reason + ")");
}

void DepthCamera::feedColour(const py::object& image, const py::object& timestamp) {
  const py::array colour = uint8Image(image, "image", true);
  LumoImage frame{};
  frame.timestamp = integer(timestamp, "timestamp", 0, kLargestStamp);
  frame.width = static_cast<uint32_t>(colour.shape(1));
  frame.height = static_cast<uint32_t>(colour.shape(0));
  frame.channels = colour.ndim() == 3 ? 3 : 1;
  frame.stride = frame.width * frame.channels;
  frame.size = frame.stride * frame.height;
  frame.data = static_cast<uint8_t*>(const_cast<void*>(colour.data()));
  int status;
  {
    Call call(*this);
    py::gil_scoped_release release;
    status = KORV_LUMO_D_FeedRGBImage(call.handle(), &frame);
  }
  if (status != 0) throw Error("KORV_LUMO_D_FeedRGBImage refused the image (the library's error line says why)");
}

void DepthCamera::feedPose(const py::object& timestamp, const py::object& position, const py::object& orientation) {
  LumoPose pose{};
  pose.timestamp = integer(timestamp, "timestamp", 0, kLargestStamp);
  const auto p = vector(position, "position", 3);
  const auto q = vector(orientation, "orientation", 4);
  for (int i = 0; i < 3; ++i) pose.position[i] = p.at(i);
  for (int i = 0; i < 4; ++i) pose.orientation[i] = q.at(i);
  int status;
  {
    Call call(*this);
    py::gil_scoped_release release;
    status = KORV_LUMO_D_FeedPose(call.handle(), &pose);
  }
  if (status != 0) throw Error("KORV_LUMO_D_FeedPose refused the pose (the library's error line says why)");
}

DepthResult DepthCamera::depth() {
  const bool aligned = config_.alignEnabled();
  py::array_t<float> depthBuffer(static_cast<py::ssize_t>(config_.depthCapacity()));
  py::array_t<float> disparityBuffer(static_cast<py::ssize_t>(config_.disparityCapacity()));
  py::array_t<uint8_t> alignedBuffer(static_cast<py::ssize_t>(config_.alignedCapacity()));
  LumoDepthImage depth{}, disparity{};
  LumoImage colour{};
  depth.data = depthBuffer.mutable_data();
  disparity.data = disparityBuffer.mutable_data();
  colour.data = alignedBuffer.mutable_data();
  int status;
  {
    Call call(*this);
    py::gil_scoped_release release;
    status = KORV_LUMO_D_GetDepthImage(call.handle(), &depth, &disparity, aligned ? &colour : nullptr);
  }
  if (status != 0) throw NotReady("no depth yet");
  checkHeader("depth", depth.width, depth.height, depth.channels, depth.size, sizeof(float),
              sizeof(float) * depthBuffer.size(), false);
  checkHeader("disparity", disparity.width, disparity.height, disparity.channels, disparity.size, sizeof(float),
              sizeof(float) * disparityBuffer.size(), false);
  DepthResult result;
  result.depth = shaped(depthBuffer, depth.size / sizeof(float), {depth.height, depth.width});
  result.disparity = shaped(disparityBuffer, disparity.size / sizeof(float), {disparity.height, disparity.width});
  result.aligned = py::none();
  // Nothing registered yet leaves the aligned record empty.
  if (aligned && colour.size > 0) {
    checkHeader("aligned", colour.width, colour.height, colour.channels, colour.size, 1, alignedBuffer.size(), true);
    std::vector<py::ssize_t> shape = {colour.height, colour.width};
    if (colour.channels == 3) shape.push_back(3);
    result.aligned = shaped(alignedBuffer, colour.size, shape);
  }
  result.timestamp = depth.timestamp;
  result.tag0 = depth.tag0;
  result.tag1 = depth.tag1;
  return result;
}

py::array DepthCamera::rectified() {
  py::array_t<uint8_t> buffer(static_cast<py::ssize_t>(config_.rectifiedCapacity()));
  LumoImage image{};
  image.data = buffer.mutable_data();
  int status;
  {
    Call call(*this);
    py::gil_scoped_release release;
    status = KORV_LUMO_D_GetRectifiedImage(call.handle(), &image);
  }
  if (status != 0) throw NotReady("no rectified image yet");
  checkHeader("rectified", image.width, image.height, image.channels, image.size, 1, buffer.size(), true);
  if (image.channels != 3) throw Error("rectified: the library wrote " + std::to_string(image.channels) + " channel(s)");
  return shaped(buffer, image.size, {image.height, image.width, 3});
}

py::dict DepthCamera::rectifyInfo() {
  LumoRectifyInfo info{};
  int status;
  {
    Call call(*this);
    py::gil_scoped_release release;
    status = KORV_LUMO_D_GetRectifyInfo(call.handle(), &info);
  }
  if (status != 0) throw Error("KORV_LUMO_D_GetRectifyInfo failed: the handle has no rectification (no calibration)");
  const auto matrix = [](const float* values, py::ssize_t rows, py::ssize_t columns) {
    py::array_t<float> out({rows, columns});
    std::copy(values, values + rows * columns, out.mutable_data());
    return out;
  };
  py::dict out;
  out["R1"] = matrix(info.R1, 3, 3);
  out["R2"] = matrix(info.R2, 3, 3);
  out["P1"] = matrix(info.P1, 3, 4);
  out["P2"] = matrix(info.P2, 3, 4);
  return out;
}

py::tuple DepthCamera::pointCloud() {
  const std::size_t capacity = config_.cloudCapacity();
  if (capacity == 0 || capacity > static_cast<std::size_t>(INT_MAX)) throw NotReady("no point cloud");
  py::array_t<float> buffer(static_cast<py::ssize_t>(3 * capacity));
  LumoMap map{};
  map.points = buffer.mutable_data();
  int status;
  {
    Call call(*this);
    py::gil_scoped_release release;
    status = KORV_LUMO_D_GetPointcloud(call.handle(), &map, static_cast<int>(capacity));
  }
  if (status != 0) throw NotReady("no point cloud yet, or the latest one is empty");
  if (map.num < 0 || static_cast<std::size_t>(map.num) > capacity) {
    throw Error("point cloud: the library reported " + std::to_string(map.num) + " points for room for " +
                std::to_string(capacity));
  }
  const py::ssize_t points = map.num;
  return py::make_tuple(shaped(buffer, 3 * static_cast<std::size_t>(points), {points, 3}), map.timestamp);
}

py::array DepthCamera::coordinates(const py::object& pixels, const py::object& depth) {
  const auto pairs = pixelPairs(pixels, "pixels");
  const py::array_t<float> image = float32Image(depth, "depth");
  const py::ssize_t count = pairs.shape(0);
  if (count > INT_MAX) throw py::value_error("pixels: at most " + std::to_string(INT_MAX) + " pairs at a time");
  if (static_cast<uint64_t>(image.size()) * sizeof(float) > UINT32_MAX) {
    throw py::value_error("depth: at most 2**32 bytes, got shape " + shapeText(image));
  }
  py::array_t<float> out({count, static_cast<py::ssize_t>(3)});
  LumoDepthImage record{};
  record.width = static_cast<uint32_t>(image.shape(1));
  record.height = static_cast<uint32_t>(image.shape(0));
  record.channels = 1;
  record.stride = record.width * sizeof(float);
  record.size = record.stride * record.height;
  record.data = const_cast<float*>(image.data());
  int status;
  {
    Call call(*this);
    py::gil_scoped_release release;
    status = KorvLumetra::KORV_LUMO_D_GetCoordinates(call.handle(), pairs.data(), static_cast<int>(count), &record,
                                                    out.mutable_data());
  }
  if (status != 0) throw Error("KORV_LUMO_D_GetCoordinates failed");
  return out;
}

py::list DepthCamera::locateObjects(const py::object& depth, const py::object& boxes) {
  const py::array_t<float> image = float32Image(depth, "depth");
  if (image.shape(0) > 32768 || image.shape(1) > 32768) {
    throw py::value_error("depth: expected at most 32768 rows and columns, got " + shapeText(image));
  }
  const std::vector<LumoDetection> records = boxRecords(boxes, "boxes");
  std::vector<LumoObject> objects(records.size());
  LumoDepthImage record{};
  record.width = static_cast<uint32_t>(image.shape(1));
  record.height = static_cast<uint32_t>(image.shape(0));
  record.channels = 1;
  record.stride = record.width * sizeof(float);
  record.size = static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(record.stride) * record.height,
                                                         UINT32_MAX));
  record.data = const_cast<float*>(image.data());
  int status;
  {
    Call call(*this);
    py::gil_scoped_release release;
    status = KORV_LUMO_D_LocateObjects(call.handle(), &record, records.data(), static_cast<int>(records.size()),
                                       objects.data());
  }
  if (status != 0) {
    const char* reason = config_.hasCalibration ? "the library's error line on standard output says why"
                                                : "the configuration names no calib_path";
    throw Error(std::string("KORV_LUMO_D_LocateObjects refused the call (") + reason + ")");
  }
  py::list out;
  for (const LumoObject& object : objects) out.append(locatedObject(object));
  return out;
}

}  // namespace LumoPython
