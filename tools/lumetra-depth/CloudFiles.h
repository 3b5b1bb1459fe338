// Point clouds on disk: ASCII PCD (the layout of the library's own debug
// dump) and binary little-endian PLY, points only.
#pragma once

#include <string>

namespace LumoTool {

// `points` holds x, y, z for each of `count` points. Throw ToolError when the
// file cannot be written.
void writePcd(const std::string& path, const float* points, int count);
void writePly(const std::string& path, const float* points, int count);

}  // namespace LumoTool
