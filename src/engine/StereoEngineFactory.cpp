#include "engine/StereoEngineFactory.h"

#include "engine/StereoCVEngine.h"

namespace KorvLumetra {

std::unique_ptr<StereoEngineBase> StereoEngineFactory::createStereoEngine(
    int width, int height, int channels, const std::string& /*reserved*/, float depthFactorA,
    float depthFactorB, int debugFlag, std::string debugDir, int /*depthMode*/, float imageScale,
    bool useWls) {
  // Every depth mode is served by the semi-global matcher.
  return std::make_unique<StereoCVEngine>(width, height, channels, depthFactorA, depthFactorB,
                                          imageScale, debugFlag, std::move(debugDir), useWls);
}

}  // namespace KorvLumetra
