// Runs a callable and returns what it wrote to stdout (or stderr), including
// output of the C stdio functions, which are flushed before reading.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>

namespace LumoTest {

template <typename Fn>
std::string captureStdout(Fn&& fn) {
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  std::forward<Fn>(fn)();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

template <typename Fn>
std::string captureStderr(Fn&& fn) {
  std::fflush(stderr);
  testing::internal::CaptureStderr();
  std::forward<Fn>(fn)();
  std::fflush(stderr);
  return testing::internal::GetCapturedStderr();
}

}  // namespace LumoTest
