#include "pipeline/StageTimeline.h"

#ifdef LUMO_STAGE_TIMELINE

#include <array>
#include <atomic>
#include <chrono>

namespace KorvLumetra {
namespace {

constexpr uint64_t kMarks = 1u << 16;
std::array<StageMark, kMarks> marks;
std::atomic<uint64_t> nextMark{0};
uint64_t firstUntaken = 0;

}  // namespace

void markStage(Stage stage) {
  const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                          std::chrono::steady_clock::now().time_since_epoch()).count();
  marks[nextMark.fetch_add(1) % kMarks] = StageMark{stage, now};
}

std::vector<StageMark> takeStageMarks() {
  const uint64_t end = nextMark.load();
  const uint64_t begin = end - firstUntaken > kMarks ? end - kMarks : firstUntaken;
  std::vector<StageMark> taken;
  for (uint64_t i = begin; i < end; ++i) taken.push_back(marks[i % kMarks]);
  firstUntaken = end;
  return taken;
}

}  // namespace KorvLumetra

#endif
