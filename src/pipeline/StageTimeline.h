// Marks of a frame's way through the pipeline's threads, for finding where
// its time goes. Only the benchmark's build of the pipeline records them (with
// LUMO_STAGE_TIMELINE defined); in the library a mark is an empty function.
#pragma once

#include <cstdint>
#include <vector>

namespace KorvLumetra {

// In the order a synchronous frame passes them.
enum class Stage : uint8_t {
  kFed,             // the host called the feed
  kPreprocessing,   // the preprocessing thread took the frame
  kHandedToEngine,  // rectified and staged for an engine
  kEngineResult,    // the engine announced its result
  kResultTaken,     // the result thread copied the result out
  kFiltered,        // filters done, depth published
  kCloudBuilt,      // point cloud done
  kOutputReady,     // alignment, restore and dumps done; waiting hosts woken
};
constexpr int kStageCount = 8;

struct StageMark {
  Stage stage;
  int64_t nanoseconds;  // steady clock
};

#ifdef LUMO_STAGE_TIMELINE
void markStage(Stage stage);
// The marks made since the last call, oldest first; at most the newest 65536.
// Call it while the pipeline is idle.
std::vector<StageMark> takeStageMarks();
#else
inline void markStage(Stage) {}
#endif

}  // namespace KorvLumetra
