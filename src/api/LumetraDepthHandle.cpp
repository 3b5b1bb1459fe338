#include "api/LumetraDepthHandle.h"

#include <new>
#include <string>

#include "api/ErrorLog.h"

namespace KorvLumetra {

LumetraDepthHandle::~LumetraDepthHandle() { delete depth; }

int LumetraDepthHandle::Initialize(const char* configPath) {
  try {
    depth = new StereoDepth();
  } catch (const std::bad_alloc&) {
    // The host gets 1 and a handle without a pipeline, which it destroys.
    logError("Initialize", "not enough memory for the pipeline's buffers (about 1.2 GB of address space)");
    return 1;
  }
  const std::string path(configPath);
  // Deliberately ignored: a faulty configuration is logged and the handle
  // stays usable for destruction.
  depth->initFromYaml(path);
  return depth != nullptr ? 0 : 1;
}

}  // namespace KorvLumetra
