#include "ArrayChecks.h"

#include <string>

namespace py = pybind11;
using namespace pybind11::literals;

namespace LumoPython {

namespace {

std::string text(const py::handle& object) { return py::str(object).cast<std::string>(); }

std::string typeName(const py::handle& object) { return text(py::type::handle_of(object).attr("__name__")); }

py::array ndarray(const py::handle& object, const char* name, const char* expected) {
  if (!py::isinstance<py::array>(object)) {
    throw py::type_error(std::string(name) + ": expected a numpy.ndarray of " + expected + ", got " +
                         typeName(object));
  }
  return py::reinterpret_borrow<py::array>(object);
}

void requireDtype(const py::array& array, const py::dtype& wanted, const char* name) {
  if (!array.dtype().equal(wanted)) {
    throw py::type_error(std::string(name) + ": expected dtype " + text(wanted) + ", got " +
                         text(array.dtype()));
  }
}

void requireContiguous(const py::array& array, const char* name) {
  if (!(array.flags() & py::array::c_style)) {
    throw py::type_error(std::string(name) +
                         ": expected a C-contiguous array (numpy.ascontiguousarray makes one), got one with strides " +
                         text(array.attr("strides")));
  }
}

}  // namespace

std::string shapeText(const py::array& array) { return text(array.attr("shape")); }

py::array uint8Image(const py::handle& object, const char* name, bool contiguous) {
  py::array array = ndarray(object, name, "uint8");
  requireDtype(array, py::dtype::of<uint8_t>(), name);
  const bool grey = array.ndim() == 2;
  const bool colour = array.ndim() == 3 && array.shape(2) == 3;
  if ((!grey && !colour) || array.shape(0) < 1 || array.shape(1) < 1) {
    throw py::value_error(std::string(name) + ": expected shape (rows, columns) or (rows, columns, 3), got " +
                          shapeText(array));
  }
  if (contiguous) requireContiguous(array, name);
  return array;
}

py::array_t<float> float32Image(const py::handle& object, const char* name) {
  py::array array = ndarray(object, name, "float32");
  requireDtype(array, py::dtype::of<float>(), name);
  if (array.ndim() != 2) {
    throw py::value_error(std::string(name) + ": expected shape (rows, columns), got " + shapeText(array));
  }
  requireContiguous(array, name);
  return py::reinterpret_borrow<py::array_t<float>>(array);
}

py::array_t<int32_t, py::array::c_style> pixelPairs(const py::handle& object, const char* name) {
  const py::module_ numpy = py::module_::import("numpy");
  const py::array array = numpy.attr("asarray")(object);
  const std::string kind(1, array.dtype().kind());
  if (kind != "i" && kind != "u") {
    throw py::type_error(std::string(name) + ": expected integer (column, row) pairs, got dtype " +
                         text(array.dtype()));
  }
  if (array.ndim() != 2 || array.shape(1) != 2) {
    throw py::value_error(std::string(name) + ": expected shape (N, 2) of (column, row) pairs, got " +
                          shapeText(array));
  }
  if (array.shape(0) > 0) {
    const py::int_ low = array.attr("min")(), high = array.attr("max")();
    if (low < py::int_(INT32_MIN) || high > py::int_(INT32_MAX)) {
      throw py::value_error(std::string(name) + ": pixel coordinates must fit in 32 bits, got values from " +
                            text(low) + " to " + text(high));
    }
  }
  return numpy.attr("ascontiguousarray")(array, "dtype"_a = numpy.attr("int32"));
}

py::array_t<double, py::array::c_style> vector(const py::handle& object, const char* name, int count) {
  const py::module_ numpy = py::module_::import("numpy");
  py::array array;
  try {
    array = numpy.attr("ascontiguousarray")(object, "dtype"_a = numpy.attr("float64"));
  } catch (const py::error_already_set& e) {
    throw py::type_error(std::string(name) + ": expected " + std::to_string(count) + " numbers, got " +
                         typeName(object));
  }
  if (array.ndim() != 1 || array.shape(0) != count) {
    throw py::value_error(std::string(name) + ": expected " + std::to_string(count) + " numbers, got shape " +
                          shapeText(array));
  }
  return array;
}

py::array_t<float> detectorOutput(const py::handle& object, const char* name) {
  py::array array = ndarray(object, name, "float32");
  requireDtype(array, py::dtype::of<float>(), name);
  if (array.ndim() == 3 && array.shape(0) == 1) array = array.attr("reshape")(array.shape(1), array.shape(2));
  if (array.ndim() != 2 || array.shape(0) < 1 || array.shape(1) < 1) {
    throw py::value_error(std::string(name) + ": expected shape (rows, columns) or (1, rows, columns), got " +
                          shapeText(array));
  }
  requireContiguous(array, name);
  return py::reinterpret_borrow<py::array_t<float>>(array);
}

py::array_t<float, py::array::c_style> boxArray(const py::handle& object, const char* name) {
  const py::module_ numpy = py::module_::import("numpy");
  py::array array = numpy.attr("asarray")(object);
  const std::string kind(1, array.dtype().kind());
  if (kind != "f" && kind != "i" && kind != "u") {
    throw py::type_error(std::string(name) + ": expected numbers x0, y0, x1, y1, got dtype " + text(array.dtype()));
  }
  if (array.ndim() == 1 && array.shape(0) == 0) array = array.attr("reshape")(0, 4);  // [] : no boxes
  if (array.ndim() != 2 || array.shape(1) != 4) {
    throw py::value_error(std::string(name) + ": expected shape (N, 4) of x0, y0, x1, y1, got " + shapeText(array));
  }
  return numpy.attr("ascontiguousarray")(array, "dtype"_a = numpy.attr("float32"));
}

double number(const py::handle& object, const char* name, double lowest, double highest) {
  // numbers.Real takes numpy's scalars too.
  const py::object real = py::module_::import("numbers").attr("Real");
  if (PyBool_Check(object.ptr()) || !py::isinstance(object, real)) {
    throw py::type_error(std::string(name) + ": expected a number, got " + typeName(object));
  }
  const double value = py::float_(py::reinterpret_borrow<py::object>(object));
  if (!(value >= lowest && value <= highest)) {
    throw py::value_error(std::string(name) + ": expected " + text(py::float_(lowest)) + " .. " +
                          text(py::float_(highest)) + ", got " + text(object));
  }
  return value;
}

uint64_t integer(const py::handle& object, const char* name, uint64_t lowest, uint64_t highest) {
  if (PyBool_Check(object.ptr()) || !PyIndex_Check(object.ptr())) {
    throw py::type_error(std::string(name) + ": expected an int, got " + typeName(object));
  }
  const py::int_ value = py::reinterpret_steal<py::int_>(PyNumber_Index(object.ptr()));
  if (!value) throw py::error_already_set();
  if (value < py::int_(lowest) || value > py::int_(highest)) {
    throw py::value_error(std::string(name) + ": expected " + std::to_string(lowest) + " .. " +
                          std::to_string(highest) + ", got " + text(value));
  }
  return value.cast<uint64_t>();
}

}  // namespace LumoPython
