// What any thread reports, in order, and the wait for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace zeb::test {

/// For what must happen: long enough for the slowest machine, never reached by a passing test.
constexpr std::chrono::milliseconds k_deadline(20'000);

/// Copies share the values: a callback that is still running when the test has ended keeps them alive by its
/// own copy.
template <typename T>
class Mailbox {
 public:
  void Push(T value) const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->values.push_back(std::move(value));
    state_->changed.notify_all();
  }
  void Clear() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->values.clear();
  }
  static bool Any(const T& /*value*/) { return true; }
  /// The values that match, once there are `count`, or those that came before the deadline.
  template <typename Matches = decltype(&Any)>
  [[nodiscard]] std::vector<T> Await(size_t count, Matches matches = Any) const {
    std::vector<T> found;
    size_t next = 0;
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->changed.wait_for(lock, k_deadline, [&, &values = state_->values] {
      for (; next < values.size(); ++next)
        if (matches(values[next])) found.push_back(values[next]);
      return found.size() >= count;
    });
    return found;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<T> values;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace zeb::test
