// The Python module lumetra_depth: numpy arrays in and out, exceptions instead
// of status codes, every output buffer sized by the binding.
#include <string>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "DepthCamera.h"
#include "Errors.h"

namespace py = pybind11;
using namespace pybind11::literals;
using LumoPython::DepthCamera;
using LumoPython::DepthResult;

namespace {

const char* const kModuleDoc = R"(Metric depth from a calibrated stereo camera pair.

    import lumetra_depth as ld

    with ld.Depth("config.yaml") as cam:
        cam.feed_stereo(frame, timestamp)   # uint8 (2H, W) or (2H, W, 3), left view on top
        r = cam.depth()                     # r.depth: float32 (H, W), 0 = no depth

Conventions: depth is in the length unit of the calibration's translations
(metres for most calibrations), 0.0 marks a pixel without depth. Camera
frames have Z forward, X right, Y down; pixel (u, v) is column u, row v.
Time stamps are the host's own integers (any unit, the same for frames and
poses); colour frames are matched to depth within 0.5e9 of that unit.
Library calls that fail raise Error (NotReady when there is nothing to hand
out yet, Timeout when a synchronous feed waited in vain); the library also
prints its own error line on standard output.)";

const char* const kDepthDoc = R"(A depth handle configured from a YAML file.

Depth(config_path) creates the handle: reads the configuration and the
calibration it names, builds the rectification and starts the library's
threads. Raises Error with the library's reason when the configuration or
calibration is refused (also for a missing required key, which inside the
library would end the process).

Use it as a context manager or call close(); a closed object raises Error.
Any thread may call any method: the GIL is released while the library works
or waits, so one thread can feed while another reads.)";

std::string sizeText(const LumoPython::ImageSize& size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

}  // namespace

PYBIND11_MODULE(lumetra_depth, m) {
  m.doc() = kModuleDoc;
  m.attr("__version__") = LUMO_VERSION;

  const auto error = py::register_exception<LumoPython::Error>(m, "Error", PyExc_RuntimeError);
  error.doc() = "A library call failed, a configuration was refused, or the object is closed.";
  py::register_exception<LumoPython::NotReady>(m, "NotReady", error.ptr()).doc() =
      "Nothing to hand out yet: no depth, rectified image or point cloud so far.";
  py::register_exception<LumoPython::Timeout>(m, "Timeout", error.ptr()).doc() =
      "A synchronous feed (async_mode 0) waited about 2 s for its depth in vain.";

  py::class_<DepthResult>(m, "DepthResult", "The latest depth and what came with it (see Depth.depth).")
      .def_readonly("depth", &DepthResult::depth,
                    "float32 (H, W): depth in the calibration's length unit, 0 = no depth. H, W: the input "
                    "view's size with restore_depth_dim on, else the working size; the aligned camera's size "
                    "when depth is registered into it (align_direction true).")
      .def_readonly("disparity", &DepthResult::disparity, "float32 (h, w) at the working size: disparity in pixels.")
      .def_readonly("aligned", &DepthResult::aligned,
                    "uint8 (H, W) or (H, W, 3): the colour image registered with this depth, or None when "
                    "alignment is off or nothing has been registered yet.")
      .def_readonly("timestamp", &DepthResult::timestamp, "Time stamp of the stereo frame the depth came from.")
      .def_readonly("tag0", &DepthResult::tag0, "tag0 of that stereo frame.")
      .def_readonly("tag1", &DepthResult::tag1, "tag1 of that stereo frame.")
      .def("__repr__", [](const DepthResult& r) {
        return "<DepthResult timestamp=" + std::to_string(r.timestamp) + " depth " +
               std::string(py::str(r.depth.attr("shape"))) + (r.aligned.is_none() ? "" : " aligned") + ">";
      });

  py::class_<DepthCamera>(m, "Depth", kDepthDoc)
      .def(py::init([](const py::object& path) {
             return new DepthCamera(py::module_::import("os").attr("fsdecode")(path).cast<std::string>());
           }),
           "config_path"_a, "Creates a handle from the YAML configuration at config_path (str or path).")
      .def("close", &DepthCamera::close,
           "Destroys the handle (waits for calls under way in other threads). Closing twice is harmless.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](DepthCamera& camera, const py::args&) {
        camera.close();
        return false;
      })
      .def_property_readonly("closed", &DepthCamera::closed, "True once close() was called.")
      .def_property_readonly("config_path", &DepthCamera::configPath, "The configuration file's path.")
      .def_property_readonly(
          "input_size",
          [](const DepthCamera& c) { return py::make_tuple(c.config().stereoInput.width, c.config().stereoInput.height); },
          "(width, height) of one input view, as configured.")
      .def_property_readonly(
          "working_size",
          [](const DepthCamera& c) {
            return py::make_tuple(c.config().stereoWorking.width, c.config().stereoWorking.height);
          },
          "(width, height) of one view as matched: the input size times stereo_img_scaling.")
      .def("feed_stereo", &DepthCamera::feedStereo, "frame"_a, "timestamp"_a, py::kw_only(), "tag0"_a = 0,
           "tag1"_a = 0,
           R"(Feeds one stacked stereo frame.

frame: C-contiguous uint8 array (2H, W) (grey) or (2H, W, 3) (blue, green,
red), the left view in rows 0..H-1 above the right view; W x H is the
configured input view size. timestamp: positive int in the host's unit (0
means "no frame" to the library). tag0, tag1: 32-bit ints carried into the
depth result. The array is read in place, not copied.
With async_mode 0 the call returns once this frame's depth is there, and
raises Timeout when it did not come within about 2 s.)")
      .def("feed_stereo", &DepthCamera::feedStereoPair, "left"_a, "right"_a, "timestamp"_a, py::kw_only(),
           "tag0"_a = 0, "tag1"_a = 0,
           R"(Feeds the two views of one stereo frame: uint8 (H, W) or (H, W, 3) each, any
memory layout; the binding stacks them (one copy). Otherwise as above.)")
      .def("feed_colour", &DepthCamera::feedColour, "image"_a, "timestamp"_a,
           R"(Feeds one frame of the auxiliary colour camera, for alignment.

image: C-contiguous uint8 (H, W) or (H, W, 3); the library resizes it to the
configured input_aux_cam_width x input_aux_cam_height. timestamp: int in the
same unit as the stereo frames'. Feed it before the stereo frame it belongs to.)")
      .def("feed_pose", &DepthCamera::feedPose, "timestamp"_a, "position"_a, "orientation"_a,
           R"(Feeds one tracker pose (used by point clouds of pointcloud_type 2).

position: (x, y, z) in the calibration's length unit; orientation: unit
quaternion (w, x, y, z). The pose maps the left camera's frame into the world.)")
      .def("depth", &DepthCamera::depth,
           R"(The latest depth as a DepthResult (depth, disparity, aligned, timestamp,
tag0, tag1); fresh arrays each call. Raises NotReady before the first result.)")
      .def("rectified", &DepthCamera::rectified,
           R"(The latest rectified pair: uint8 (2h, W, 3) in red, green, blue order, left
view on top, at the working size. Raises NotReady before the first frame.)")
      .def("rectify_info", &DepthCamera::rectifyInfo,
           R"(The stereo rectification: dict of float32 arrays "R1", "R2" (3, 3), the
rectifying rotations, and "P1", "P2" (3, 4), the rectified projections (pixels;
P2[0, 3] = -fx * baseline). With restore_depth_dim on, P1 and P2 describe the
input size, else the working size.)")
      .def("point_cloud", &DepthCamera::pointCloud,
           R"(The latest point cloud: (points, timestamp), points float32 (N, 3) x, y, z in
the calibration's length unit (rectified left camera frame, or the world for
pointcloud_type 2). Raises NotReady while there is none or it is empty.)")
      .def("coordinates", &DepthCamera::coordinates, "pixels"_a, "depth"_a,
           R"(3-D points of pixels of a depth image.

pixels: integer (N, 2) as (column, row); depth: C-contiguous float32 (H, W) as
depth() hands it out. Returns float32 (N, 3), x, y, z in the calibration's
length unit, (0, 0, 0) for pixels outside the image or without depth. With
restore_depth_dim off, pixels are input-image positions, scaled by the library.)")
      .def("__repr__", [](DepthCamera& c) {
        return "<lumetra_depth.Depth '" + c.configPath() + "' " + sizeText(c.config().stereoInput) +
               (c.closed() ? " closed>" : ">");
      });
}
