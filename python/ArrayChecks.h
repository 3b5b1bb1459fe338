// Argument checks at the Python boundary: each failure says what was expected
// and what came (TypeError for the kind of object, dtype or memory layout,
// ValueError for shapes and values).
#pragma once

#include <cstdint>
#include <string>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

namespace LumoPython {

// An 8-bit image (rows, columns) or (rows, columns, 3). `contiguous`: the
// library reads it in place, so it must be C-contiguous.
pybind11::array uint8Image(const pybind11::handle& object, const char* name, bool contiguous);

// A C-contiguous float32 array of two dimensions (depth for coordinate queries).
pybind11::array_t<float> float32Image(const pybind11::handle& object, const char* name);

// An (N, 2) integer array as int32 (a copy when it is of another integer type).
pybind11::array_t<int32_t, pybind11::array::c_style> pixelPairs(const pybind11::handle& object, const char* name);

// `count` numbers as doubles (a sequence or an array of shape (count,)).
pybind11::array_t<double, pybind11::array::c_style> vector(const pybind11::handle& object, const char* name,
                                                           int count);

// A detector's raw output: C-contiguous float32 (rows, columns), or
// (1, rows, columns) for a batch of one, returned as (rows, columns).
pybind11::array_t<float> detectorOutput(const pybind11::handle& object, const char* name);

// Boxes x0, y0, x1, y1: an array-like of real numbers of shape (N, 4) (or an
// empty sequence), as a float32 copy.
pybind11::array_t<float, pybind11::array::c_style> boxArray(const pybind11::handle& object, const char* name);

// A real number (not a bool) within [lowest, highest].
double number(const pybind11::handle& object, const char* name, double lowest, double highest);

// A Python int within [lowest, highest].
uint64_t integer(const pybind11::handle& object, const char* name, uint64_t lowest, uint64_t highest);

// "(800, 640, 3)" for an array's shape.
std::string shapeText(const pybind11::array& array);

}  // namespace LumoPython
