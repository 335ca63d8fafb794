// Watches the host's addresses through the kernel's routing socket, on a thread of its own.
#pragma once

#include <memory>

#include "util/thread.h"

namespace zeb::util {

/// One for the whole process, kept by the NetworkManagers' registry as long as anybody is registered. While
/// no address and no link changes, its thread sleeps.
class NetworkWatcher {
 public:
  /// From now on EventDic::k_address_lost is raised by NetworkManager::RaiseEvent for each IP version whose
  /// last usable address goes. Null, after one LOG_WARNING line, when the kernel or the system's limits do
  /// not let us watch.
  static std::unique_ptr<NetworkWatcher> Start();

  /// Lets the thread end, without waiting for that.
  void End();

  /// Ends the thread and waits for it; not so on the very thread, which ends once it has returned.
  ~NetworkWatcher();
  NetworkWatcher(const NetworkWatcher&) = delete;
  NetworkWatcher& operator=(const NetworkWatcher&) = delete;

 private:
  struct State;
  explicit NetworkWatcher(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<State> state_;  // null once it was told to end
  Thread thread_;
};

}  // namespace zeb::util
