// The accuracy of a fused map of a synthetic recording: how far its points
// lie from the rendered scene's true surfaces.
#pragma once

#include <string>

namespace LumoTool {

// Prints the figures for MAP.ply against the scene of a folder written by
// 'synth --layout asl'; returns 1 when the median distance is above
// `requireMedianCm` (0: no requirement). Throws ToolError for files it cannot use.
int evalMap(const std::string& plyPath, const std::string& sample, double requireMedianCm);

}  // namespace LumoTool
