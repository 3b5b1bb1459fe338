#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "pipeline/LumoImageRing.h"

namespace KorvLumetra {
namespace LumoUtils {
namespace {

template <typename Fn>
std::string lengthErrorText(Fn&& fn) {
  try {
    fn();
  } catch (const std::length_error& e) {
    return e.what();
  }
  return "no exception";
}

TEST(LumoImageRing, OverwritesTheOldestKeepsBuffersAndThrowsWhenEmpty) {
  LumoImageRing ring(20, 8);
  EXPECT_EQ(lengthErrorText([&] { ring.back(); }), "back function called on empty buffer");
  EXPECT_EQ(lengthErrorText([&] { ring.front(); }), "front function called on empty buffer");
  // Frames 1..21 into 20 slots: after the 20th push the write index wraps to 0.
  LumoImage* first = nullptr;
  uint8_t* firstBuffer = nullptr;
  for (uint64_t t = 1; t <= 21; ++t) {
    ring.push();
    LumoImage* slot = ring.back();
    EXPECT_EQ(slot->timestamp, 0u);  // header cleared by the push, buffer kept
    ASSERT_NE(slot->data, nullptr);
    if (t == 1) first = slot, firstBuffer = slot->data;
    slot->timestamp = t;
  }
  EXPECT_EQ(ring.back(), first);
  EXPECT_EQ(first->data, firstBuffer);
  EXPECT_EQ(ring.size(), 20u);
  for (uint64_t t = 2; t <= 21; ++t) {
    EXPECT_EQ(ring.front()->timestamp, t);
    ring.pop_front();
  }
  EXPECT_EQ(lengthErrorText([&] { ring.pop_front(); }), "pop_front called on empty buffer");
  ring.push();  // the ring's own mutex was released before throwing
  EXPECT_EQ(ring.size(), 1u);
}

}  // namespace
}  // namespace LumoUtils
}  // namespace KorvLumetra
