// The Python module lumetra_depth: numpy arrays in and out, exceptions instead
// of status codes, every output buffer sized by the binding.
#include <cstdio>
#include <string>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "ArrayChecks.h"
#include "DepthCamera.h"
#include "Detection.h"
#include "Errors.h"

namespace py = pybind11;
using namespace pybind11::literals;
using LumoPython::DepthCamera;
using LumoPython::DepthResult;
using LumoPython::Detection;
using LumoPython::Letterbox;
using LumoPython::LocatedObject;

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

// "0.25" rather than the double of a float, "0.25000000372529".
std::string shortNumber(float value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.4g", static_cast<double>(value));
  return text;
}

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

  py::class_<Letterbox>(m, "Letterbox", R"(How letterbox() fitted an image into a detector's input: detector pixel =
image pixel * scale + (pad_left, pad_top). Hand it to unletterbox() or
decode_detections(letterbox=...). Letterbox(scale, pad_left, pad_top,
source_size, target_size) makes one by hand (sizes as (width, height)).)")
      .def(py::init([](float scale, int32_t padLeft, int32_t padTop, std::pair<uint32_t, uint32_t> source,
                       std::pair<uint32_t, uint32_t> target) {
             return Letterbox{LumoLetterbox{scale, padLeft, padTop, source.first, source.second, target.first,
                                            target.second}};
           }),
           "scale"_a, "pad_left"_a, "pad_top"_a, "source_size"_a, "target_size"_a)
      .def_property_readonly("scale", [](const Letterbox& l) { return l.record.scale; },
                             "Detector pixels per image pixel.")
      .def_property_readonly("pad_left", [](const Letterbox& l) { return l.record.pad_left; },
                             "Columns of padding left of the resized image.")
      .def_property_readonly("pad_top", [](const Letterbox& l) { return l.record.pad_top; },
                             "Rows of padding above it.")
      .def_property_readonly(
          "source_size", [](const Letterbox& l) { return py::make_tuple(l.record.source_width, l.record.source_height); },
          "(width, height) of the image.")
      .def_property_readonly(
          "target_size", [](const Letterbox& l) { return py::make_tuple(l.record.target_width, l.record.target_height); },
          "(width, height) of the detector input.")
      .def("__repr__", [](const Letterbox& l) {
        return "<Letterbox scale=" + shortNumber(l.record.scale) + " pad=(" +
               std::to_string(l.record.pad_left) + ", " + std::to_string(l.record.pad_top) + ") " +
               std::to_string(l.record.source_width) + "x" + std::to_string(l.record.source_height) + " -> " +
               std::to_string(l.record.target_width) + "x" + std::to_string(l.record.target_height) + ">";
      });

  py::class_<Detection>(m, "Detection", R"(One box of a detector (see decode_detections). Detection(box, class_id=0,
score=0.0, label=None) wraps a box of another detector, box as x0, y0, x1, y1.)")
      .def(py::init([](const py::object& box, int32_t classId, float score, const py::object& label) {
             const auto corners = LumoPython::vector(box, "box", 4);
             Detection d;
             d.classId = classId;
             d.score = score;
             d.label = label;
             for (int i = 0; i < 4; ++i) d.box[static_cast<std::size_t>(i)] = static_cast<float>(corners.at(i));
             return d;
           }),
           "box"_a, "class_id"_a = 0, "score"_a = 0.0f, "label"_a = py::none())
      .def_readonly("class_id", &Detection::classId, "Index of the class among the detector's class scores.")
      .def_readonly("label", &Detection::label, "The class's name from labels, or None.")
      .def_readonly("score", &Detection::score, "Best class score (times the objectness where there is one).")
      .def_property_readonly(
          "box", [](const Detection& d) { return py::make_tuple(d.box[0], d.box[1], d.box[2], d.box[3]); },
          "(x0, y0, x1, y1) in pixels; (0, 0, width, height) is the whole image.")
      .def("__repr__", [](const Detection& d) {
        return "<Detection " + (d.label.is_none() ? "class " + std::to_string(d.classId) : std::string(py::str(d.label))) +
               " score=" + shortNumber(d.score) + " box=(" + shortNumber(d.box[0]) + ", " +
               shortNumber(d.box[1]) + ", " + shortNumber(d.box[2]) + ", " + shortNumber(d.box[3]) + ")>";
      });

  py::class_<LocatedObject>(m, "LocatedObject", "Where the object of one box is (see Depth.locate_objects).")
      .def_readonly("status", &LocatedObject::status,
                    "\"located\"; \"no_depth\" when under a quarter of the box's middle has depth (no position is "
                    "made up); \"outside\" for a box off the depth image, empty or with non-finite corners.")
      .def_readonly("distance", &LocatedObject::distance,
                    "Median depth of the box's middle (half its width and height), depth unit; 0 unless located.")
      .def_readonly("valid_share", &LocatedObject::validShare, "Share of the box's middle with depth, 0..1.")
      .def_readonly("centre", &LocatedObject::centre,
                    "float32 (3,): x, y, z of the box centre at that distance, rectified left camera frame "
                    "(z = distance); zeros unless located.")
      .def_readonly("width", &LocatedObject::width, "The box's width at that distance, depth unit.")
      .def_readonly("height", &LocatedObject::height, "The box's height at that distance, depth unit.")
      .def("__repr__", [](const LocatedObject& o) {
        return "<LocatedObject " + o.status + " distance=" + shortNumber(o.distance) + ">";
      });

  m.def("read_labels", &LumoPython::readLabels, "path"_a,
        R"(Class names of a label list: one per line, UTF-8; trailing blanks and CR
removed, blank lines and lines starting with '#' skipped. Raises Error with the
library's reason for a missing or unreadable file, a directory, more than
1 MB, text that is not UTF-8 or holds a NUL byte, or no name at all.)");
  m.def("letterbox", &LumoPython::letterbox, "image"_a, "width"_a, "height"_a, "pad"_a = 114,
        R"(Fits an image into a detector input of width x height: (out, info).

image: uint8 (H, W) or (H, W, 3), any layout (a non-contiguous one is copied
once). It is resized bilinearly to the largest size that keeps its aspect
ratio, centred, the rest set to pad (0..255). out: uint8 (height, width) or
(height, width, 3), channels as given; info: a Letterbox.)");
  m.def("unletterbox", &LumoPython::unletterbox, "info"_a, "boxes"_a,
        R"(Maps boxes from detector pixels onto the letterboxed image, clipped to it.

boxes: (N, 4) numbers x0, y0, x1, y1 (returns a new float32 (N, 4) array), or a
list of Detection (returns new Detections, class, score and label kept). A
box with nothing on the image becomes all zeros; the order and count stay.)");
  m.def("decode_detections", &LumoPython::decodeDetections, "output"_a, py::kw_only(), "score_threshold"_a = 0.25,
        "iou_threshold"_a = 0.45, "max_boxes"_a = 100, "objectness"_a = false, "transposed"_a = false,
        "class_count"_a = py::none(), "letterbox"_a = py::none(), "labels"_a = py::none(),
        R"(Boxes of a single-stage detector's raw output, best first: a list of Detection.

output: C-contiguous float32 (rows, columns), or (1, rows, columns) for a batch
of one; one box per row (per column with transposed=True) of (cx, cy, w, h,
class scores...), or (cx, cy, w, h, objectness, class scores...) with
objectness=True, centre and size in detector pixels. class_count: class
scores per box, checked against the output; by default what it leaves.
Each box takes its best class (score times objectness where there is one);
boxes scoring at least score_threshold (0..1) go through non-maximum
suppression per class (OpenCV's) with iou_threshold (0..1); at most max_boxes
come out. letterbox: a Letterbox maps the boxes back onto the image and
clips them (those left with no area are dropped); without it they stay in
detector pixels. labels: the class names (as read_labels gives them), one
per class, set as each Detection's label. Raises Error when the library
refuses the output (a score that is not a number, a non-finite box scoring
at least the threshold).)");

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
      .def("locate_objects", &DepthCamera::locateObjects, "depth"_a, "boxes"_a,
           R"(Where the object of each box is: a list of LocatedObject, one per box.

depth: C-contiguous float32 (H, W) as depth() hands it out; boxes: (N, 4)
numbers x0, y0, x1, y1 in its pixels (those of the rectified left view), or a
list of Detection. Each object's distance is the median depth of the box's
middle (the box clipped to the image, then half its width and height); its
centre and extent come through the rectified projection P1 at that distance.
Raises Error when the handle has no calibration.)")
      .def("__repr__", [](DepthCamera& c) {
        return "<lumetra_depth.Depth '" + c.configPath() + "' " + sizeText(c.config().stereoInput) +
               (c.closed() ? " closed>" : ">");
      });
}
