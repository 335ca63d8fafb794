// Clocks that have moved since the test began, for whoever reads them; timers and waits stay as they are.
#pragma once

#include <atomic>
#include <cstdint>

namespace zeb::test {

extern std::atomic<int64_t> suspended_s;   // goes to CLOCK_BOOTTIME
extern std::atomic<int64_t> wall_clock_s;  // goes to CLOCK_REALTIME

}  // namespace zeb::test
