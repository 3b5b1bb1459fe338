// Files written whole or not at all: through a hidden name in the same folder
// (the extension kept, so that writers that choose the format by it still
// can), then renamed, so that a run that is stopped or fails leaves no
// half-written file under a final name.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

#include "ToolError.h"

namespace LumoTool {

// Calls write(partialPath); a ToolError from it, or a failed rename, removes
// the partial file and throws ToolError "cannot write 'path'".
template <class Write>
void writeAtomically(const std::string& path, Write write) {
  const std::filesystem::path final(path);
  const std::string partial = (final.parent_path() / ("." + final.filename().string())).string();
  std::error_code error;
  try {
    write(partial);
  } catch (const ToolError&) {
    std::filesystem::remove(partial, error);
    throw ToolError("cannot write '" + path + "'");
  }
  std::filesystem::rename(partial, final, error);
  if (error) {
    std::filesystem::remove(partial, error);
    throw ToolError("cannot write '" + path + "': " + error.message());
  }
}

}  // namespace LumoTool
