#pragma once

#include <memory>
#include <string>

#include "engine/StereoEngineBase.h"

namespace KorvLumetra {

class StereoEngineFactory {
 public:
  // width/height: one rectified view; depth = depthFactorA * depthFactorB *
  // imageScale / disparity. `reserved` (a model path) is unused by the
  // semi-global matcher, which serves every depthMode.
  static std::unique_ptr<StereoEngineBase> createStereoEngine(
      int width, int height, int channels, const std::string& reserved, float depthFactorA,
      float depthFactorB, int debugFlag, std::string debugDir, int depthMode, float imageScale,
      bool useWls);
};

}  // namespace KorvLumetra
