// The end of one blocking operation, and the wait for a descriptor that respects it. Any thread.
#pragma once

#include <poll.h>

#include <algorithm>
#include <climits>
#include <cstdint>

#include "util/boot_clock.h"

namespace zeb::util {

/// A point on the monotonic clock. A value.
class Deadline {
 public:
  /// A time-out of 0 or less has passed already: what it bounds is tried once, without waiting.
  explicit Deadline(int64_t timeout_us) : end_us_(MonotonicUs() + std::max<int64_t>(timeout_us, 0)) {}

  /// Microseconds that are left, 0 when it has passed.
  [[nodiscard]] int64_t RemainingUs() const { return std::max<int64_t>(end_us_ - MonotonicUs(), 0); }

 private:
  int64_t end_us_;
};

/// Waits for one of `events`, an error or a hang-up, at most `wait_us` (rounded up to milliseconds). True
/// when there is one; false after the time, and after a signal: the caller looks at its deadline again.
inline bool WaitForDescriptor(int fd, short events, int64_t wait_us) {
  pollfd entry{fd, events, 0};
  const int64_t wait_ms = std::min<int64_t>((wait_us + 999) / 1'000, INT_MAX);
  return ::poll(&entry, 1, static_cast<int>(wait_ms)) > 0;
}

}  // namespace zeb::util
