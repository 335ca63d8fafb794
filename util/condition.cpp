// Construction and timed wait of the condition variable. Any thread.
#include "util/condition.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <limits>
#include <utility>

#include "util/kernel_log.h"

namespace zeb::util {
namespace {

constexpr char kWaitUntil[] = "zeb::Result zeb::util::Condition::WaitUntil(zeb::util::Mutex&, int64_t)";

timespec DeadlineAfter(const timespec& now, int64_t timeout_us) {
  int64_t seconds = now.tv_sec + timeout_us / 1'000'000;
  int64_t nanoseconds = now.tv_nsec + timeout_us % 1'000'000 * 1'000;
  if (nanoseconds > 999'999'999) {
    seconds += 1;
    nanoseconds -= 1'000'000'000;
  }
  timespec deadline{};
  // With a 32-bit time_t, a long time-out would otherwise overflow into the past.
  deadline.tv_sec = static_cast<time_t>(std::min<int64_t>(seconds, std::numeric_limits<time_t>::max()));
  deadline.tv_nsec = static_cast<decltype(deadline.tv_nsec)>(nanoseconds);
  return deadline;
}

}  // namespace

Condition::Condition(std::string name) : name_(std::move(name)) {
  pthread_condattr_t attributes;
  ::pthread_condattr_init(&attributes);
  ::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  ::pthread_cond_init(&cond_, &attributes);
  ::pthread_condattr_destroy(&attributes);
}

Condition::~Condition() { ::pthread_cond_destroy(&cond_); }

Result Condition::WaitUntil(Mutex& mutex, int64_t timeout_us) {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  if (!name_.empty())
    ZEB_KERNEL_LOG_ECHO("echo \"%s %d: name %s\" > /dev/kmsg", kWaitUntil, __LINE__, name_.c_str());
  const timespec deadline = DeadlineAfter(now, timeout_us);
  return ::pthread_cond_timedwait(&cond_, &mutex.mutex_, &deadline) == ETIMEDOUT ? kTimeout : kSuccess;
}

}  // namespace zeb::util
