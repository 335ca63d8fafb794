// A thread that receives no signals. Supplied by the platform.
#pragma once

#include <functional>
#include <thread>

#include "util/result.h"

namespace zeb::util {

/// A handle of at most one running thread. Not thread-safe.
class Thread {
 public:
  /// Runs `body` on a new thread with all signals blocked, so that the application's signal handlers never
  /// run there. Returns `kFailure`, without having started anything, if the system cannot create a thread.
  /// The handle must not hold a joinable thread.
  Result Start(std::function<void()> body);

  [[nodiscard]] bool Joinable() const { return thread_.joinable(); }
  /// Whether the caller runs on this thread.
  [[nodiscard]] bool IsCurrent() const { return thread_.get_id() == std::this_thread::get_id(); }
  /// Blocks until the thread has ended.
  void Join() { thread_.join(); }
  /// Lets the thread continue without a handle.
  void Detach() { thread_.detach(); }

 private:
  std::thread thread_;
};

}  // namespace zeb::util
