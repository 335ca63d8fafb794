// Takes the place of clock_gettime().
#include "tests/support/clock_offset.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

std::atomic<int64_t> zeb::test::suspended_s{0};
std::atomic<int64_t> zeb::test::wall_clock_s{0};

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
  const auto add = [now](const auto& seconds) {
    now->tv_sec += static_cast<time_t>(seconds.load(std::memory_order_relaxed));
  };
  if (clock == CLOCK_BOOTTIME) add(zeb::test::suspended_s);
  if (clock == CLOCK_REALTIME) add(zeb::test::wall_clock_s);
  return result;
}
