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

TEST(LumoImageRing, EmptyRingThrows) {
  LumoImageRing ring(3, 16);
  EXPECT_EQ(ring.size(), 0u);
  EXPECT_EQ(lengthErrorText([&] { ring.back(); }), "back function called on empty buffer");
  EXPECT_EQ(lengthErrorText([&] { ring.front(); }), "front function called on empty buffer");
  EXPECT_EQ(lengthErrorText([&] { ring.pop_front(); }), "pop_front called on empty buffer");
  // Emptied again after use.
  ring.push();
  ring.pop_front();
  EXPECT_EQ(lengthErrorText([&] { ring.pop_front(); }), "pop_front called on empty buffer");
  // The ring's own mutex was released before throwing: it still works.
  ring.push();
  EXPECT_EQ(ring.size(), 1u);
}

TEST(LumoImageRing, OverwritesOldestAndKeepsBuffers) {
  LumoImageRing ring(20, 8);
  ring.push();
  LumoImage* first = ring.back();
  EXPECT_EQ(ring.front(), first);
  uint8_t* firstBuffer = first->data;
  ASSERT_NE(firstBuffer, nullptr);

  // Frames 1..21 into 20 slots: 2..21 remain, oldest 2 in front.
  first->timestamp = 1;
  for (uint64_t t = 2; t <= 21; ++t) {
    ring.push();
    LumoImage* slot = ring.back();
    EXPECT_EQ(slot->timestamp, 0u);  // header cleared by the push
    EXPECT_EQ(slot->width, 0u);
    EXPECT_NE(slot->data, nullptr);  // buffer kept
    slot->timestamp = t;
    slot->width = 5;
  }
  EXPECT_EQ(ring.size(), 20u);
  EXPECT_EQ(ring.front()->timestamp, 2u);
  EXPECT_EQ(ring.back()->timestamp, 21u);
  // The 21st push wrote slot 0 again, with its original buffer.
  EXPECT_EQ(ring.back(), first);
  EXPECT_EQ(ring.back()->data, firstBuffer);

  for (uint64_t t = 2; t <= 21; ++t) {
    EXPECT_EQ(ring.front()->timestamp, t);
    ring.pop_front();
  }
  EXPECT_EQ(ring.size(), 0u);
}

TEST(LumoImageRing, BackWrapsToLastSlot) {
  LumoImageRing ring(4, 8);
  LumoImage* slots[4];
  for (int i = 0; i < 4; ++i) {
    ring.push();
    slots[i] = ring.back();
  }
  // After `capacity` pushes the next write index is 0 again; back is the last slot.
  EXPECT_EQ(ring.back(), slots[3]);
  EXPECT_EQ(ring.front(), slots[0]);
  for (int i = 1; i < 4; ++i) EXPECT_EQ(slots[i], slots[0] + i);
}

TEST(LumoPoseRing, TwoHundredFirstPoseOverwritesFirst) {
  LumoPoseRing ring(200);
  for (uint64_t t = 1; t <= 201; ++t) {
    ring.push();
    LumoPose* pose = ring.back();
    EXPECT_EQ(pose->position[0], 0.0);  // whole record cleared
    pose->timestamp = t;
    pose->position[0] = static_cast<double>(t);
  }
  EXPECT_EQ(ring.size(), 200u);
  EXPECT_EQ(ring.front()->timestamp, 2u);
  EXPECT_EQ(ring.back()->timestamp, 201u);
}

}  // namespace
}  // namespace LumoUtils
}  // namespace KorvLumetra
