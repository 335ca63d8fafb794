// Runs something at the end of a scope, whichever way the scope is left.
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

  /// The action is no longer due.
  void Dismiss() { armed_ = false; }

 private:
  Action action_;
  bool armed_ = true;
};

}  // namespace zeb::util
