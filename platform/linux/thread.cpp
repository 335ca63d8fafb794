// Starts threads that receive no signals. Any thread.
#include "util/thread.h"

#include <csignal>
#include <exception>
#include <utility>

#include "util/log.h"

namespace zeb::util {
namespace {

// A new thread inherits its creator's mask. Blocking signals only in the new thread would leave a gap.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace

Result Thread::Start(std::function<void()> body) {
  const AllSignalsBlocked blocked;
  try {
    thread_ = std::thread(std::move(body));
  } catch (const std::exception& error) {
    ZEB_LOG(LOG_ERR, "no thread: %s", error.what());
    return kFailure;
  }
  return kSuccess;
}

}  // namespace zeb::util
