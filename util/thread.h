// A thread that takes no signals. Supplied by the platform.
#pragma once

#include <functional>
#include <thread>

#include "util/result.h"

namespace zeb::util {

/// Handle of at most one running thread; one owner at a time.
class Thread {
 public:
  /// Runs `body` on a new thread in which every signal is blocked, so that the application's handlers
  /// never run there. `kFailure`, with nothing started, when the system has no thread to give. The handle
  /// must not hold a joinable thread.
  Result Start(std::function<void()> body);

  [[nodiscard]] bool Joinable() const { return thread_.joinable(); }
  /// Whether the caller runs on the thread.
  [[nodiscard]] bool IsCurrent() const { return thread_.get_id() == std::this_thread::get_id(); }
  /// Blocks until the thread has ended.
  void Join() { thread_.join(); }
  /// Lets the thread run on without a handle.
  void Detach() { thread_.detach(); }

 private:
  std::thread thread_;
};

}  // namespace zeb::util
