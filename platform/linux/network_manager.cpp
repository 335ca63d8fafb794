// The process-wide registry of event callbacks and its watcher. Any thread. The registry's lock is not held
// while a callback runs or while a thread is waited for.
#include "util/network_manager.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "platform/linux/host_addresses.h"
#include "platform/linux/network_watcher.h"
#include "util/condition.h"
#include "util/mutex.h"
#include "util/scope_exit.h"

namespace zeb::util {

/// One callback, shared by the registry, its NetworkManager and the running calls of it.
struct NetworkManager::Registration {
  explicit Registration(EventCallback function) : callback(std::move(function)) {}

  struct Registry {
    Mutex mutex;  // guards all below, and `active` and `running` of each registration
    Condition call_ended;
    std::vector<std::shared_ptr<Registration>> list;
    std::unique_ptr<NetworkWatcher> watcher;  // set while the list is not empty
    std::unique_ptr<NetworkWatcher> ended;    // the previous watcher, told to end but not yet waited for
  };
  static Registry& GetRegistry() {
    static auto* const registry = new Registry;  // never freed: threads may raise events during exit
    return *registry;
  }

  /// Runs the callback unless it has been retired.
  void Call(EventDic& event);
  /// Ends the registration. Waits for running calls, unless called from one of them.
  void Retire();

  EventCallback callback;  // does not change while `active` or while a call runs
  bool active = true;
  std::vector<std::thread::id> running;
};

void NetworkManager::Registration::Call(EventDic& event) {
  Registry& registry = GetRegistry();
  const std::thread::id self = std::this_thread::get_id();
  MutexLock lock(registry.mutex);
  if (!active) return;
  running.push_back(self);
  lock.Unlock();
  const ScopeExit end([&] {
    const MutexLock again(registry.mutex);
    running.erase(std::find(running.begin(), running.end(), self));
    registry.call_ended.Broadcast();
  });
  callback(event);
}

void NetworkManager::Registration::Retire() {
  Registry& registry = GetRegistry();
  // Both are destroyed last, without the lock: the callback's captures may do anything, and the watcher waits
  // for its thread.
  EventCallback doomed;
  std::unique_ptr<NetworkWatcher> earlier;
  MutexLock lock(registry.mutex);
  active = false;
  auto& list = registry.list;
  const auto is_this = [this](const auto& other) { return other.get() == this; };
  list.erase(std::remove_if(list.begin(), list.end(), is_this), list.end());
  if (list.empty() && registry.watcher != nullptr) {
    registry.watcher->End();  // does not wait, so that the session ends without delay
    earlier = std::exchange(registry.ended, std::move(registry.watcher));
  }
  // A call does not wait for the others: two that retire the same registration would wait for each other.
  if (std::find(running.begin(), running.end(), std::this_thread::get_id()) != running.end()) return;
  while (!running.empty()) registry.call_ended.Wait(registry.mutex);
  doomed = std::move(callback);
}

NetworkManager::NetworkManager() = default;

NetworkManager::~NetworkManager() {
  UnsetEventCb();
  std::unique_ptr<NetworkWatcher> ended;  // its thread is waited for without the lock
  Registration::Registry& registry = Registration::GetRegistry();
  const MutexLock lock(registry.mutex);
  ended = std::move(registry.ended);
}

void NetworkManager::SetEventCb(EventCallback callback, int socket_fd) {
  UnsetEventCb();
  if (callback == nullptr) return;
  const auto registration = std::make_shared<Registration>(std::move(callback));
  std::unique_ptr<NetworkWatcher> ended;  // its thread is waited for without the lock
  Registration::Registry& registry = Registration::GetRegistry();
  MutexLock lock(registry.mutex);
  registry.list.push_back(registration);
  registration_ = registration;
  if (registry.watcher == nullptr) registry.watcher = NetworkWatcher::Start();
  ended = std::move(registry.ended);
  lock.Unlock();
  ended.reset();

  // The address may have gone since the connect. The watcher, which reports only changes, would not say so.
  if (const char* const ip_version = LostIpVersion(socket_fd)) {
    EventDic event(EventDic::k_address_lost);
    event.SetParam(EventDic::k_ip_version, ip_version);
    registration->Call(event);
  }
}

void NetworkManager::UnsetEventCb() {
  const std::shared_ptr<Registration> registration = std::move(registration_);
  if (registration != nullptr) registration->Retire();
}

void NetworkManager::RaiseEvent(EventDic& event) {
  Registration::Registry& registry = Registration::GetRegistry();
  MutexLock lock(registry.mutex);
  const std::vector<std::shared_ptr<Registration>> targets = registry.list;
  lock.Unlock();

  for (const std::shared_ptr<Registration>& target : targets) target->Call(event);
}

}  // namespace zeb::util
