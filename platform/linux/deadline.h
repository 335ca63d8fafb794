// The deadline of a blocking operation, and waits for a descriptor that respect it. Any thread.
#pragma once

#include <poll.h>

#include <algorithm>
#include <climits>
#include <cstdint>

#include "util/boot_clock.h"

namespace zeb::util {

/// Waits at most `wait_us` (rounded up to milliseconds) for one of `events`, an error or a hang-up. Returns
/// whether there is one. A signal also ends the wait, so the caller must check its deadline again.
inline bool WaitForDescriptor(int fd, short events, int64_t wait_us) {
  pollfd entry{fd, events, 0};
  const int64_t wait_ms = std::min<int64_t>((wait_us + 999) / 1'000, INT_MAX);
  return ::poll(&entry, 1, static_cast<int>(wait_ms)) > 0;
}

/// A point on the monotonic clock. A descriptor can cancel the operation earlier.
class Deadline {
 public:
  /// With a time-out of 0 or less, the operation is tried once without waiting. `cancel_fd` (-1: none; not
  /// owned) becomes readable when the operation is no longer wanted.
  explicit Deadline(int64_t timeout_us, int cancel_fd = -1)
      : end_us_(MonotonicUs() + std::max<int64_t>(timeout_us, 0)), cancel_fd_(cancel_fd) {}

  /// The microseconds left; 0 once the deadline has passed.
  [[nodiscard]] int64_t RemainingUs() const { return std::max<int64_t>(end_us_ - MonotonicUs(), 0); }

  [[nodiscard]] bool Cancelled() const { return cancel_fd_ >= 0 && WaitForDescriptor(cancel_fd_, POLLIN, 0); }

  /// Waits until `fd` has one of `events`, an error or a hang-up. Returns false if the deadline passed first
  /// or the operation was cancelled.
  [[nodiscard]] bool Await(int fd, short events) const {
    for (;;) {
      pollfd entries[] = {{fd, events, 0}, {cancel_fd_, POLLIN, 0}};  // poll ignores negative descriptors
      const int64_t remaining_us = RemainingUs();
      const int64_t wait_ms = std::min<int64_t>((remaining_us + 999) / 1'000, INT_MAX);
      const int ready = ::poll(entries, 2, static_cast<int>(wait_ms));
      if (ready > 0) return entries[1].revents == 0;
      if (remaining_us == 0) return false;
    }
  }

 private:
  int64_t end_us_;
  int cancel_fd_;
};

}  // namespace zeb::util
