// Time that goes on while the device is suspended: the clock of all session time stamps.
#pragma once

#include <cstdint>
#include <ctime>

namespace zeb::util {

/// Microseconds of CLOCK_BOOTTIME. Any thread.
inline int64_t BootTimeUs() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return (static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec) / 1'000;
}

/// Microseconds of CLOCK_MONOTONIC, for deadlines that stand still while the device is suspended.
inline int64_t MonotonicUs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1'000;
}

/// One moment by both clocks.
struct Moment {
  int64_t boot_us;
  int64_t monotonic_us;
  static Moment Now() { return {BootTimeUs(), MonotonicUs()}; }
};

}  // namespace zeb::util
