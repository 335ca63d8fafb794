// The process-wide registry of event callbacks, and the one watcher behind it. Any thread; no callback runs,
// and no thread is waited for, with the registry's lock held.
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

/// One callback, known to the registry, to its NetworkManager and to the calls of it that are running.
struct NetworkManager::Registration {
  explicit Registration(EventCallback function) : callback(std::move(function)) {}

  struct Registry {
    Mutex mutex;  // guards all below, and of each registration `active` and `running`
    Condition call_ended;
    std::vector<std::shared_ptr<Registration>> list;
    std::unique_ptr<NetworkWatcher> watcher;  // while the list is not empty
    std::unique_ptr<NetworkWatcher> ended;    // the one before, told to end: nobody has waited for it yet
  };
  static Registry& GetRegistry() {
    static auto* const registry = new Registry;  // never freed: threads may raise events during exit
    return *registry;
  }

  /// Runs the callback, unless it was retired before.
  void Call(EventDic& event);
  /// Ends the registration; waits for running calls unless it is one of them that asks.
  void Retire();

  EventCallback callback;  // constant while `active`, or a call runs
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
  EventCallback doomed;                     // both destroyed last, without the lock: what the callback
  std::unique_ptr<NetworkWatcher> earlier;  // captured may do anything, and the watcher waits for its thread
  MutexLock lock(registry.mutex);
  active = false;
  auto& list = registry.list;
  const auto is_this = [this](const auto& other) { return other.get() == this; };
  list.erase(std::remove_if(list.begin(), list.end(), is_this), list.end());
  if (list.empty() && registry.watcher != nullptr) {
    registry.watcher->End();  // the session's own end is not held up until it has
    earlier = std::exchange(registry.ended, std::move(registry.watcher));
  }
  // Two calls that retire each other's registration at once must not wait for one another, hence no wait
  // here.
  if (std::find(running.begin(), running.end(), std::this_thread::get_id()) != running.end()) return;
  while (!running.empty()) registry.call_ended.Wait(registry.mutex);
  doomed = std::move(callback);
}

NetworkManager::NetworkManager() = default;

NetworkManager::~NetworkManager() {
  UnsetEventCb();
  std::unique_ptr<NetworkWatcher> ended;  // waited for without the lock
  Registration::Registry& registry = Registration::GetRegistry();
  const MutexLock lock(registry.mutex);
  ended = std::move(registry.ended);
}

void NetworkManager::SetEventCb(EventCallback callback, int socket_fd) {
  UnsetEventCb();
  if (callback == nullptr) return;
  const auto registration = std::make_shared<Registration>(std::move(callback));
  std::unique_ptr<NetworkWatcher> ended;  // waited for without the lock
  Registration::Registry& registry = Registration::GetRegistry();
  MutexLock lock(registry.mutex);
  registry.list.push_back(registration);
  registration_ = registration;
  if (registry.watcher == nullptr) registry.watcher = NetworkWatcher::Start();
  ended = std::move(registry.ended);
  lock.Unlock();
  ended.reset();

  // The address may have gone between the connect and this moment: the watcher, which reports changes, has
  // no more to say about it.
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
