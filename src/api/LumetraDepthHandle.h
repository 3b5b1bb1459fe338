// The object behind the opaque handle of the exported functions.
#pragma once

#include "pipeline/StereoDepth.h"

namespace KorvLumetra {

class LumetraDepthHandle {
 public:
  LumetraDepthHandle() = default;
  ~LumetraDepthHandle();
  LumetraDepthHandle(const LumetraDepthHandle&) = delete;
  LumetraDepthHandle& operator=(const LumetraDepthHandle&) = delete;

  // Creates the pipeline and configures it. The configuration's own result is
  // not reported: 0 whenever the pipeline exists. A null path throws
  // std::logic_error, after the pipeline was created.
  int Initialize(const char* configPath);

  StereoDepth* depth = nullptr;  // owned
};

}  // namespace KorvLumetra
