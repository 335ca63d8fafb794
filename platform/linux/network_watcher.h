// Watches the host's addresses through the kernel's routing socket, on a thread of its own. Not thread-safe:
// the registry of callbacks, which owns the watcher, makes its calls one at a time.
#pragma once

#include <memory>

#include "util/thread.h"

namespace zeb::util {

/// There is one for the whole process, as long as any callback is registered. Its thread sleeps until a link
/// or an address changes.
class NetworkWatcher {
 public:
  /// From now on, raises EventDic::k_address_lost through NetworkManager::RaiseEvent for each IP version
  /// whose last usable address is lost. If the kernel or a resource limit prevents that, writes one log line
  /// and returns null.
  static std::unique_ptr<NetworkWatcher> Start();

  /// Tells the thread to end, without waiting for it.
  void End();

  /// Ends the thread and waits for it. On that very thread it does not wait; the thread ends by itself.
  ~NetworkWatcher();
  NetworkWatcher(const NetworkWatcher&) = delete;
  NetworkWatcher& operator=(const NetworkWatcher&) = delete;

 private:
  struct State;
  explicit NetworkWatcher(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<State> state_;  // null after End
  Thread thread_;
};

}  // namespace zeb::util
