// Point clouds on disk, points only: PCD, binary or ASCII (the layout of the
// library's own debug dump), and binary little-endian PLY.
#pragma once

#include <string>

namespace LumoTool {

// `points` holds x, y, z for each of `count` points. Throw ToolError when the
// file cannot be written.
enum class PcdData { Binary, Ascii };
void writePcd(const std::string& path, const float* points, int count, PcdData data);
void writePly(const std::string& path, const float* points, int count);

}  // namespace LumoTool
