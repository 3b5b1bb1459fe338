#include "MapEval.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "ToolError.h"
#include "synth/SyntheticScene.h"
#include "yaml/YamlNode.h"

namespace LumoTool {

namespace {

// Points of a binary little-endian PLY holding x, y, z floats only, as 'run --map' writes it.
std::vector<float> readPlyPoints(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw cannotRead(path, "No such file or directory");
  std::string line, header;
  long long count = -1;
  while (std::getline(in, line) && line != "end_header") {
    header += line + "\n";
    if (line.rfind("element vertex ", 0) == 0) count = std::atoll(line.c_str() + 15);
  }
  const std::string expected =
      "format binary_little_endian 1.0\n" + std::string("element vertex ") + std::to_string(count) +
      "\nproperty float x\nproperty float y\nproperty float z\n";
  if (header.rfind("ply\n", 0) != 0 || header.find(expected) == std::string::npos || count < 0) {
    throw cannotRead(path, "not a binary PLY of x, y, z floats");
  }
  std::vector<float> points(static_cast<std::size_t>(count) * 3);
  in.read(reinterpret_cast<char*>(points.data()), static_cast<std::streamsize>(points.size() * sizeof(float)));
  if (in.gcount() != static_cast<std::streamsize>(points.size() * sizeof(float))) {
    throw cannotRead(path, "holds fewer points than its header says");
  }
  return points;
}

}  // namespace

int evalMap(const std::string& plyPath, const std::string& sample, double requireMedianCm) {
  const std::string marker = (std::filesystem::path(sample) / "synth.yaml").string();
  if (!KorvTech::YamlNode::UnreadableReason(marker).empty() ||
      KorvTech::YamlNode::LoadFile(marker)["scene"].scalar != "roaming") {
    throw cannotRead(sample, "not a recording written by 'lumetra-depth synth --layout asl' (no synth.yaml)");
  }
  const std::vector<float> points = readPlyPoints(plyPath);
  if (points.empty()) throw cannotRead(plyPath, "no points");
  // The surfaces do not depend on the texture seed, and nothing moves in this scene.
  const LumoSynth::Scene scene = LumoSynth::roamingScene();
  std::vector<double> distances;
  distances.reserve(points.size() / 3);
  for (std::size_t i = 0; i < points.size(); i += 3) {
    distances.push_back(LumoSynth::surfaceDistance(scene, 0, Eigen::Vector3d(points[i], points[i + 1], points[i + 2])));
  }
  std::sort(distances.begin(), distances.end());
  const auto share = [&](double limit) {
    return 100.0 * static_cast<double>(std::upper_bound(distances.begin(), distances.end(), limit) - distances.begin()) /
           static_cast<double>(distances.size());
  };
  const double median = distances[(distances.size() - 1) / 2];
  std::printf("lumetra-depth eval: map %s against the true surfaces of %s\n", plyPath.c_str(), sample.c_str());
  std::printf("  map points           %zu\n", distances.size());
  std::printf("  median distance      %.2f cm\n", 100.0 * median);
  std::printf("  within 1, 2, 5 cm    %.1f %%, %.1f %%, %.1f %%\n", share(0.01), share(0.02), share(0.05));
  if (requireMedianCm > 0.0 && 100.0 * median > requireMedianCm) {
    throw ToolError("the map's median distance " + std::to_string(100.0 * median).substr(0, 5) +
                    " cm is above the required " + std::to_string(requireMedianCm).substr(0, 5) + " cm");
  }
  return 0;
}

}  // namespace LumoTool
