// Runs an action when a scope is left, whether by return or by exception.
#pragma once

#include <utility>

namespace zeb::util {

/// `action` must not throw.
template <typename Action>
class ScopeExit {
 public:
  explicit ScopeExit(Action action) : action_(std::move(action)) {}
  ~ScopeExit() {
    if (armed_) action_();
  }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;

  /// Cancels the action.
  void Dismiss() { armed_ = false; }

 private:
  Action action_;
  bool armed_ = true;
};

}  // namespace zeb::util
