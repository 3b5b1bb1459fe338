// Tracker poses beside a sequence: "poses.txt", one line per frame with the
// frame number and the top three rows of T_world_left (row-major 3x4).
#pragma once

#include <map>
#include <string>

#include "lumetra_depth.h"

namespace LumoTool {

// Poses by frame number, time stamps left 0 for the caller to set. Throws
// ToolError "cannot read" for a missing file or a malformed line.
std::map<int, LumoPose> readPoses(const std::string& path);

}  // namespace LumoTool
