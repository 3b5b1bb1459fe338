#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

#include "api/ErrorLog.h"
#include "support/CaptureOutput.h"

namespace KorvLumetra {
namespace {

class UtcClock : public testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    hadTz_ = tz != nullptr;
    if (hadTz_) oldTz_ = tz;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    if (hadTz_) {
      setenv("TZ", oldTz_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool hadTz_ = false;
  std::string oldTz_;
};

TEST_F(UtcClock, PrefixTruncatesMilliseconds) {
  // 2026-11-21 12:00:00 UTC is 1795262400 s after the epoch (calendar.timegm).
  const int64_t noon = 1795262400LL * 1000000000LL;
  char text[128];
  formatErrorPrefix(text, sizeof(text), noon + 45700000LL, "feedStereoImage");  // .0457 s
  EXPECT_STREQ(text, "2026-11-21 12:00:00.045 [ ERROR] feedStereoImage(): ");
  formatErrorPrefix(text, sizeof(text), noon + 999999999LL, "f");
  EXPECT_STREQ(text, "2026-11-21 12:00:00.999 [ ERROR] f(): ");
  formatErrorPrefix(text, sizeof(text), noon + 1000000000LL, "f");
  EXPECT_STREQ(text, "2026-11-21 12:00:01.000 [ ERROR] f(): ");
  // Single-digit fields are zero-padded.
  formatErrorPrefix(text, sizeof(text), 1767236645LL * 1000000000LL + 7000000LL, "g");  // 2026-01-01 03:04:05
  EXPECT_STREQ(text, "2026-01-01 03:04:05.007 [ ERROR] g(): ");
}

TEST(ErrorLog, LinesOnStdout) {
  const std::regex fixed(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \[ ERROR\] getDepthImage\(\): )"
                         R"(allocate memory before calling\n$)");
  const std::string one = LumoTest::captureStdout([] { logError("getDepthImage", "allocate memory before calling"); });
  EXPECT_TRUE(std::regex_match(one, fixed)) << one;

  // A formatted message carries its own newline, or none.
  const std::string two = LumoTest::captureStdout([] {
    logErrorf("preprocessLoop", "stereo depth: unrecognized image channel %d\n", 4);
    logErrorf("createBuffer", "Buffer create failed!");
  });
  const std::regex pair(R"(^[-0-9: .]{23} \[ ERROR\] preprocessLoop\(\): stereo depth: unrecognized image channel 4\n)"
                        R"([-0-9: .]{23} \[ ERROR\] createBuffer\(\): Buffer create failed!$)");
  EXPECT_TRUE(std::regex_match(two, pair)) << two;
}

TEST(ErrorLog, TimestampText) {
  EXPECT_EQ(formatTimestamp(0), "0");
  EXPECT_EQ(formatTimestamp(18446744073709551615ull), "18446744073709551615");
}

}  // namespace
}  // namespace KorvLumetra
