// A condition variable whose deadlines use the monotonic clock. Any thread.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>

#include "util/mutex.h"
#include "util/result.h"

namespace zeb::util {

/// Changes to the wall clock never move a deadline, and time spent in suspend does not count.
class Condition {
 public:
  /// A non-empty `name` is written to the kernel log at each timed wait.
  explicit Condition(std::string name = {});
  ~Condition();
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  /// Waits once, for at most `timeout_us` microseconds (0 or more). The caller holds `mutex`. Returns
  /// `kTimeout` if the deadline passed, and `kSuccess` after every wake-up, including spurious ones: the
  /// caller must check its condition.
  Result WaitUntil(Mutex& mutex, int64_t timeout_us);

  /// Waits once, without a deadline. The caller holds `mutex`.
  void Wait(Mutex& mutex) { ::pthread_cond_wait(&cond_, &mutex.mutex_); }

  /// Wakes all waiters.
  void Broadcast() { ::pthread_cond_broadcast(&cond_); }

 private:
  pthread_cond_t cond_;
  std::string name_;
};

}  // namespace zeb::util
