#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "api/ErrorLog.h"

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

}  // namespace
}  // namespace KorvLumetra
