#include "Detection.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>

#include "ArrayChecks.h"
#include "Errors.h"
#include "StdoutCapture.h"

namespace py = pybind11;

namespace LumoPython {

namespace {

constexpr uint64_t kLargestSide = 32768;               // pixels, the library's limit for every image
constexpr long long kLargestLabelList = 1LL << 20;     // bytes, the library's limit
const char* const kErrorLine = "the library's error line on standard output says why";

std::string typeName(const py::handle& object) {
  return py::str(py::type::handle_of(object).attr("__name__")).cast<std::string>();
}

// A list or tuple of Detection (told by its first item; the rest are checked).
bool detectionSequence(const py::object& boxes) {
  if (!(py::isinstance<py::list>(boxes) || py::isinstance<py::tuple>(boxes)) || py::len(boxes) == 0) return false;
  return py::isinstance<Detection>(py::reinterpret_borrow<py::sequence>(boxes)[0]);
}

const LumoLetterbox& letterboxRecord(const py::object& info, const char* name) {
  if (!py::isinstance<Letterbox>(info)) {
    throw py::type_error(std::string(name) + ": expected a lumetra_depth.Letterbox, got " + typeName(info));
  }
  return info.cast<const Letterbox&>().record;
}

Detection detection(const LumoDetection& record, const py::object& label) {
  Detection d;
  d.classId = record.class_id;
  d.score = record.score;
  d.box = {record.x0, record.y0, record.x1, record.y1};
  d.label = label;
  return d;
}

// The image a letterbox was made for, checked against the library's limit.
void requireSides(const py::array& image, const char* name) {
  if (static_cast<uint64_t>(image.shape(0)) > kLargestSide || static_cast<uint64_t>(image.shape(1)) > kLargestSide) {
    throw py::value_error(std::string(name) + ": expected at most 32768 rows and columns, got " + shapeText(image));
  }
}

}  // namespace

std::vector<LumoDetection> boxRecords(const py::object& boxes, const char* name) {
  std::vector<LumoDetection> records;
  if (detectionSequence(boxes)) {
    for (const py::handle item : boxes) {
      if (!py::isinstance<Detection>(item)) {
        throw py::type_error(std::string(name) + ": expected a list of only lumetra_depth.Detection, got one " +
                             typeName(item) + " among them");
      }
      const Detection& d = item.cast<const Detection&>();
      records.push_back(LumoDetection{d.classId, d.score, d.box[0], d.box[1], d.box[2], d.box[3]});
    }
  } else {
    const auto array = boxArray(boxes, name);
    const auto values = array.unchecked<2>();
    records.resize(static_cast<std::size_t>(array.shape(0)));
    for (std::size_t i = 0; i < records.size(); ++i) {
      const auto row = static_cast<py::ssize_t>(i);
      records[i] = LumoDetection{0, 0.0f, values(row, 0), values(row, 1), values(row, 2), values(row, 3)};
    }
  }
  if (records.size() > static_cast<std::size_t>(INT_MAX)) {
    throw py::value_error(std::string(name) + ": at most " + std::to_string(INT_MAX) + " boxes at a time");
  }
  return records;
}

LocatedObject locatedObject(const LumoObject& object) {
  static const char* const kStatus[] = {"located", "no_depth", "outside"};
  if (object.status < LUMO_OBJECT_LOCATED || object.status > LUMO_OBJECT_OUTSIDE) {
    throw Error("KORV_LUMO_D_LocateObjects handed out an unknown status " + std::to_string(object.status));
  }
  LocatedObject out;
  out.status = kStatus[object.status];
  out.distance = object.distance;
  out.validShare = object.valid_share;
  py::array_t<float> centre(3);
  std::copy(object.centre, object.centre + 3, centre.mutable_data());
  out.centre = centre;
  out.width = object.width;
  out.height = object.height;
  return out;
}

py::list readLabels(const py::object& pathObject) {
  const std::string path = py::module_::import("os").attr("fsdecode")(pathObject).cast<std::string>();
  // The names take at most the file's size plus 1 byte. A file that cannot
  // be read or is too large gets a token buffer: the library refuses it anyway.
  struct stat info {};
  const long long size = stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : 0;
  std::vector<char> names(static_cast<std::size_t>(std::clamp(size, 0LL, kLargestLabelList)) + 1);
  int count = 0, status = 0;
  std::vector<std::string> errors;
  flushPythonStdout();
  {
    // Not a per-frame call: its error line is read and raised.
    py::gil_scoped_release release;
    StdoutCapture capture;
    status = KORV_LUMO_D_ReadLabels(path.c_str(), names.data(), static_cast<int>(names.size()), &count);
    errors = errorLines(capture.finish());
  }
  if (status != 0) {
    throw Error(errors.empty() ? "KORV_LUMO_D_ReadLabels refused " + path : errors.back());
  }
  py::list labels;
  std::size_t at = 0;
  for (int i = 0; i < count; ++i) {
    const auto end = std::find(names.begin() + static_cast<std::ptrdiff_t>(at), names.end(), '\0');
    if (end == names.end()) throw Error("KORV_LUMO_D_ReadLabels reported more names than it wrote");
    const std::size_t length = static_cast<std::size_t>(end - names.begin()) - at;
    labels.append(py::str(names.data() + at, length));
    at += length + 1;
  }
  return labels;
}

py::tuple letterbox(const py::object& image, const py::object& width, const py::object& height, const py::object& pad) {
  py::array in = uint8Image(image, "image", false);
  requireSides(in, "image");
  const auto targetWidth = static_cast<uint32_t>(integer(width, "width", 1, kLargestSide));
  const auto targetHeight = static_cast<uint32_t>(integer(height, "height", 1, kLargestSide));
  const int padValue = static_cast<int>(integer(pad, "pad", 0, 255));
  // The library takes packed rows: any other layout is copied once.
  in = py::module_::import("numpy").attr("ascontiguousarray")(in);
  const uint32_t channels = in.ndim() == 3 ? 3 : 1;
  std::vector<py::ssize_t> shape = {targetHeight, targetWidth};
  if (channels == 3) shape.push_back(3);
  py::array_t<uint8_t> out(shape);

  LumoImage source{}, target{};
  source.width = static_cast<uint32_t>(in.shape(1));
  source.height = static_cast<uint32_t>(in.shape(0));
  source.channels = channels;
  source.stride = source.width * channels;
  source.size = source.stride * source.height;
  source.data = static_cast<uint8_t*>(const_cast<void*>(in.data()));
  target.width = targetWidth;
  target.height = targetHeight;
  target.size = static_cast<uint32_t>(out.size());
  target.data = out.mutable_data();
  Letterbox info;
  int status;
  {
    py::gil_scoped_release release;
    status = KORV_LUMO_D_Letterbox(&source, &target, padValue, &info.record);
  }
  if (status != 0) throw Error(std::string("KORV_LUMO_D_Letterbox refused the image (") + kErrorLine + ")");
  return py::make_tuple(out, info);
}

py::object unletterbox(const py::object& info, const py::object& boxes) {
  const LumoLetterbox record = letterboxRecord(info, "info");
  std::vector<LumoDetection> records = boxRecords(boxes, "boxes");
  int status;
  {
    py::gil_scoped_release release;
    status = KORV_LUMO_D_UnletterboxBoxes(&record, records.data(), static_cast<int>(records.size()));
  }
  if (status != 0) {
    throw Error("KORV_LUMO_D_UnletterboxBoxes refused the letterbox record (it needs a positive scale and a source "
                "size of 1 to 32768 pixels)");
  }
  if (detectionSequence(boxes)) {
    py::list out;
    std::size_t i = 0;
    for (const py::handle item : boxes) out.append(detection(records[i++], item.cast<const Detection&>().label));
    return std::move(out);
  }
  py::array_t<float> out({static_cast<py::ssize_t>(records.size()), static_cast<py::ssize_t>(4)});
  float* values = out.mutable_data();
  for (const LumoDetection& d : records) {
    *values++ = d.x0;
    *values++ = d.y0;
    *values++ = d.x1;
    *values++ = d.y1;
  }
  return std::move(out);
}

py::list decodeDetections(const py::object& output, const py::object& scoreThreshold, const py::object& iouThreshold,
                          const py::object& maxBoxes, bool objectness, bool transposed, const py::object& classCount,
                          const py::object& letterbox, const py::object& labels) {
  const py::array_t<float> values = detectorOutput(output, "output");
  const py::ssize_t rows = values.shape(0), columns = values.shape(1);
  if (rows > INT_MAX || columns > INT_MAX) throw py::value_error("output: at most 2**31 - 1 rows and columns");
  const py::ssize_t boxes = transposed ? columns : rows, width = transposed ? rows : columns;
  const int first = objectness ? 5 : 4;  // values before the class scores
  const char* const kind = objectness ? "4 box values, objectness, " : "4 box values, ";
  const std::string layout = std::string(", one box per ") + (transposed ? "column" : "row") + ", got shape " +
                             shapeText(values);

  py::list names;
  if (!labels.is_none()) {
    if (!(py::isinstance<py::list>(labels) || py::isinstance<py::tuple>(labels))) {
      throw py::type_error("labels: expected a list of str, got " + typeName(labels));
    }
    for (const py::handle name : labels) {
      if (!py::isinstance<py::str>(name)) throw py::type_error("labels: expected a list of str, got one " + typeName(name));
      names.append(name);
    }
  }
  py::ssize_t classes = width - first;
  if (!classCount.is_none()) {
    classes = static_cast<py::ssize_t>(integer(classCount, "class_count", 1, INT_MAX - 5));
    if (width != first + classes) {
      throw py::value_error("output: expected " + std::to_string(first + classes) + " values per box (" + kind +
                            std::to_string(classes) + " class scores)" + layout);
    }
  } else if (classes < 1) {
    throw py::value_error("output: expected at least " + std::to_string(first + 1) + " values per box (" + kind +
                          "class scores)" + layout);
  }
  if (!labels.is_none() && static_cast<py::ssize_t>(names.size()) != classes) {
    throw py::value_error("labels: expected " + std::to_string(classes) + " names, one per class, got " +
                          std::to_string(names.size()));
  }
  LumoDecodeParams params{};
  params.layout = (objectness ? LUMO_DETECT_OBJECTNESS : 0u) | (transposed ? LUMO_DETECT_TRANSPOSED : 0u);
  params.class_count = static_cast<int32_t>(classes);
  params.score_threshold = static_cast<float>(number(scoreThreshold, "score_threshold", 0.0, 1.0));
  params.iou_threshold = static_cast<float>(number(iouThreshold, "iou_threshold", 0.0, 1.0));
  // No more boxes can come out than go in.
  const auto capacity = static_cast<int>(std::min<uint64_t>(integer(maxBoxes, "max_boxes", 1, INT_MAX),
                                                            static_cast<uint64_t>(boxes)));
  LumoLetterbox fitRecord{};
  if (!letterbox.is_none()) fitRecord = letterboxRecord(letterbox, "letterbox");
  const LumoLetterbox* fit = letterbox.is_none() ? nullptr : &fitRecord;

  std::vector<LumoDetection> out(static_cast<std::size_t>(capacity));
  int count = 0, status;
  {
    py::gil_scoped_release release;
    status = KORV_LUMO_D_DecodeDetections(values.data(), static_cast<int>(rows), static_cast<int>(columns), &params,
                                          fit, out.data(), capacity, &count);
  }
  if (status != 0) throw Error(std::string("KORV_LUMO_D_DecodeDetections refused the output (") + kErrorLine + ")");
  if (count < 0 || count > capacity) {
    throw Error("KORV_LUMO_D_DecodeDetections reported " + std::to_string(count) + " boxes for room for " +
                std::to_string(capacity));
  }
  py::list result;
  for (int i = 0; i < count; ++i) {
    const int id = out[static_cast<std::size_t>(i)].class_id;
    const bool named = !labels.is_none() && id >= 0 && id < classes;
    result.append(detection(out[static_cast<std::size_t>(i)], named ? py::object(names[id]) : py::none()));
  }
  return result;
}

}  // namespace LumoPython
