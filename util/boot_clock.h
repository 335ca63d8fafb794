// The two clocks of the library. Any thread.
#pragma once

#include <cstdint>
#include <ctime>

namespace zeb::util {

/// Microseconds of CLOCK_BOOTTIME, which keeps running while the device is suspended. All session time stamps
/// use it.
inline int64_t BootTimeUs() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return (static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec) / 1'000;
}

/// Microseconds of CLOCK_MONOTONIC, which stops while the device is suspended. Deadlines use it.
inline int64_t MonotonicUs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1'000;
}

/// One moment on both clocks.
struct Moment {
  int64_t boot_us;
  int64_t monotonic_us;
  static Moment Now() { return {BootTimeUs(), MonotonicUs()}; }
};

}  // namespace zeb::util
