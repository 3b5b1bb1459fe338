#include "CloudFiles.h"

#include <cstdio>
#include <memory>

#include "ToolError.h"

namespace LumoTool {

namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File openForWriting(const std::string& path, const char* mode) {
  File file(std::fopen(path.c_str(), mode), &std::fclose);
  if (!file) throw ToolError("cannot write '" + path + "'");
  return file;
}

void finish(File& file, const std::string& path) {
  if (std::ferror(file.get()) != 0 || std::fclose(file.release()) != 0) throw ToolError("cannot write '" + path + "'");
}

}  // namespace

void writePcd(const std::string& path, const float* points, int count, PcdData data) {
  const bool ascii = data == PcdData::Ascii;
  File file = openForWriting(path, ascii ? "w" : "wb");
  std::fprintf(file.get(),
               "# .PCD v0.7 - Point Cloud Data file format\nVERSION 0.7\nFIELDS x y z\nSIZE 4 4 4\nTYPE F F F\n"
               "COUNT 1 1 1\nWIDTH %d\nHEIGHT 1\nVIEWPOINT 0 0 0 1 0 0 0\nPOINTS %d\nDATA %s\n",
               count, count, ascii ? "ascii" : "binary");
  if (ascii) {
    for (int i = 0; i < count; ++i) {
      std::fprintf(file.get(), "%f %f %f\n", points[3 * i], points[3 * i + 1], points[3 * i + 2]);
    }
  } else {
    // Binary PCD is the points as they lie in memory: x86-64 floats are little-endian.
    std::fwrite(points, sizeof(float) * 3, static_cast<std::size_t>(count), file.get());
  }
  finish(file, path);
}

void writePly(const std::string& path, const float* points, int count) {
  File file = openForWriting(path, "wb");
  std::fprintf(file.get(),
               "ply\nformat binary_little_endian 1.0\nelement vertex %d\nproperty float x\nproperty float y\n"
               "property float z\nend_header\n",
               count);
  // x86-64 floats are little-endian already.
  std::fwrite(points, sizeof(float) * 3, static_cast<std::size_t>(count), file.get());
  finish(file, path);
}

}  // namespace LumoTool
