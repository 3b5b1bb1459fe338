#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

#include "api/ErrorLog.h"
#include "support/CaptureOutput.h"

namespace KorvLumetra {
namespace {

TEST(ErrorLog, PrefixTruncatesMillisecondsAndTimestampsPrintWhole) {
  setenv("TZ", "UTC", 1);  // local time is UTC for the rest of this process
  tzset();
  // 2026-11-21 12:00:00 UTC is 1795262400 s after the epoch (calendar.timegm).
  const int64_t noon = 1795262400LL * 1000000000LL;
  char text[128];
  formatErrorPrefix(text, sizeof(text), noon + 45700000LL, "feedStereoImage");  // .0457 s
  EXPECT_STREQ(text, "2026-11-21 12:00:00.045 [ ERROR] feedStereoImage(): ");
  formatErrorPrefix(text, sizeof(text), noon + 999999999LL, "f");
  EXPECT_STREQ(text, "2026-11-21 12:00:00.999 [ ERROR] f(): ");
  formatErrorPrefix(text, sizeof(text), 1767236645LL * 1000000000LL + 7000000LL, "g");  // 2026-01-01 03:04:05
  EXPECT_STREQ(text, "2026-01-01 03:04:05.007 [ ERROR] g(): ");

  EXPECT_EQ(formatTimestamp(0), "0");
  EXPECT_EQ(formatTimestamp(18446744073709551615ull), "18446744073709551615");
}

TEST(ErrorLog, LinesOnStdout) {
  const std::string one = LumoTest::captureStdout([] { logError("getDepthImage", "allocate memory before calling"); });
  EXPECT_TRUE(std::regex_match(one, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[ ERROR\] )"
                                               R"(getDepthImage\(\): allocate memory before calling\n)")))
      << one;
  // A formatted message carries its own newline, or none.
  const std::string two = LumoTest::captureStdout([] {
    logErrorf("preprocessLoop", "stereo depth: unrecognized image channel %d\n", 4);
    logErrorf("createBuffer", "Buffer create failed!");
  });
  EXPECT_TRUE(std::regex_match(two, std::regex(R"([-0-9: .]{23} \[ ERROR\] preprocessLoop\(\): stereo depth: )"
                                               R"(unrecognized image channel 4\n)"
                                               R"([-0-9: .]{23} \[ ERROR\] createBuffer\(\): Buffer create failed!)")))
      << two;
}

}  // namespace
}  // namespace KorvLumetra
