// A condition variable whose deadlines run on the monotonic clock.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>

#include "util/mutex.h"
#include "util/result.h"

namespace zeb::util {

/// Changes of the wall clock never move a deadline; while the device is suspended the clock stands still.
class Condition {
 public:
  /// A non-empty `name` is echoed into the kernel log at each wait.
  explicit Condition(std::string name = {});
  ~Condition();
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  /// Waits once, with `mutex` locked by the caller, for at most `timeout_us` microseconds (0 or more).
  /// `kTimeout` when the deadline passed, `kSuccess` for every wake-up, a spurious one included: what a
  /// wake-up means is for the caller to look up.
  Result WaitUntil(Mutex& mutex, int64_t timeout_us);

  /// Waits once, without a deadline.
  void Wait(Mutex& mutex) { ::pthread_cond_wait(&cond_, &mutex.mutex_); }

  /// Wakes every waiter.
  void Broadcast() { ::pthread_cond_broadcast(&cond_); }

 private:
  pthread_cond_t cond_;
  std::string name_;
};

}  // namespace zeb::util
