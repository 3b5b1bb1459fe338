#include "api/LumetraDepthHandle.h"

#include <string>

namespace KorvLumetra {

LumetraDepthHandle::~LumetraDepthHandle() { delete depth; }

int LumetraDepthHandle::Initialize(const char* configPath) {
  depth = new StereoDepth();
  const std::string path(configPath);
  // Deliberately ignored: a faulty configuration is logged and the handle
  // stays usable for destruction.
  depth->initFromYaml(path);
  return depth != nullptr ? 0 : 1;
}

}  // namespace KorvLumetra
