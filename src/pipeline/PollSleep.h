// The polling sleep of the pipeline's threads and of the synchronous feed.
#pragma once

#include <cerrno>
#include <ctime>

namespace KorvLumetra {

// Sleeps the whole interval, resuming after signals.
inline void sleepNanos(long nanos) {
  timespec request{0, nanos};
  timespec remaining{};
  while (nanosleep(&request, &remaining) == -1 && errno == EINTR) request = remaining;
}

}  // namespace KorvLumetra
