// An example platform, except for its socket: threads, wake locks that are only remembered, address literals
// and event callbacks. It has no TLS, resolves no name but "localhost", and cannot choose an interface.
// docs/platform.md says what each call must promise. Any thread.
#include <arpa/inet.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <new>
#include <set>

#include "util/log.h"
#include "util/network_manager.h"
#include "util/psm_manager.h"
#include "util/scope_exit.h"
#include "util/ssl_wrapper.h"
#include "util/thread.h"

namespace zeb::psm {
namespace {

struct Names {
  std::mutex mutex;  // guards `held`
  std::set<std::string> held;
};
Names& AllNames() {
  static Names& names = *new Names;  // never freed: threads may outlive main()
  return names;
}

}  // namespace

PsmManager::Backend PsmManager::GetBackend() { return Backend::kMemory; }

bool PsmManager::WakeLock(const std::string& name) {
  const std::lock_guard<std::mutex> lock(AllNames().mutex);
  try {
    AllNames().held.insert(name);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

bool PsmManager::WakeUnlock(const std::string& name) {
  const std::lock_guard<std::mutex> lock(AllNames().mutex);
  AllNames().held.erase(name);
  return true;
}

size_t PsmManager::HeldLocks() {
  const std::lock_guard<std::mutex> lock(AllNames().mutex);
  return AllNames().held.size();
}

}  // namespace zeb::psm

namespace zeb::util {
namespace {

constexpr int32_t k_not_supported = 95;  // the application receives the setters' result unchanged

}  // namespace

Result Thread::Start(std::function<void()> body) {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);  // the new thread inherits it
  try {
    thread_ = std::thread(std::move(body));
  } catch (const std::exception& error) {
    ZEB_LOG(LOG_ERR, "no thread: %s", error.what());
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread_.joinable() ? kSuccess : kFailure;
}

// ---- No TLS: a context holds nothing, and a socket that is given one fails to connect.

struct SslWrapper::Context {};
SslWrapper::SslWrapper(bool /*server*/, Method /*method*/) {}
SslWrapper::~SslWrapper() = default;
int32_t SslWrapper::SetCipherLists(const std::vector<std::string>& /*lists*/) { return k_not_supported; }
int32_t SslWrapper::SetRootCaFile(const std::string& /*path*/, FileType /*type*/) { return k_not_supported; }
int32_t SslWrapper::SetCertAndKeyFile(const std::string& /*cert*/, const std::string& /*key*/,
                                      FileType /*cert_type*/, FileType /*key_type*/) {
  return k_not_supported;
}

// ---- Addresses, and events about their loss

struct NetworkManager::Registration {
  EventCallback callback;
  std::vector<std::thread::id> running;  // the threads that are inside the callback
  bool ended = false;

  struct Registry {
    std::mutex mutex;  // guards this and every registration; not held while a callback runs
    std::condition_variable returned;
    std::vector<std::shared_ptr<Registration>> list;
  };
  static Registry& All() {
    static Registry& registry = *new Registry;  // never freed, like the names
    return registry;
  }
};

NetworkManager::NetworkManager() = default;
NetworkManager::~NetworkManager() { UnsetEventCb(); }

bool NetworkManager::IsValidAddress(const std::string& address, bool ipv6) {
  if (address.find('\0') != std::string::npos) return false;
  in6_addr parsed;  // large enough for either family
  if (!ipv6) return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1;
  const size_t zone = address.find('%');  // the zone must not be empty or contain a second '%'
  if (zone + 1 == address.size() || address.find('%', zone + 1) != std::string::npos) return false;
  return ::inet_pton(AF_INET6, address.substr(0, zone).c_str(), &parsed) == 1;
}

// A platform that resolves names does so on a thread of its own: the system's resolver has no time-out.
int NetworkManager::ResolveHostName(const std::string& name, std::vector<std::string>& ipv4,
                                    std::vector<std::string>& ipv6, int64_t /*timeout_us*/,
                                    int /*cancel_fd*/) {
  ipv4.clear();
  ipv6.clear();
  if (name != "localhost") return 1;
  try {
    ipv4.emplace_back("127.0.0.1");
  } catch (const std::bad_alloc&) {
    return 1;
  }
  return 0;
}

int NetworkManager::GetIpAddress(const std::string& /*iface*/, std::string& address, bool /*ipv6*/) {
  address.clear();
  return 1;
}

// A platform that learns of a loss calls RaiseEvent with EventDic::k_address_lost. If the address of
// `socket_fd` were already gone, it would also call back from here.
void NetworkManager::SetEventCb(EventCallback callback, int /*socket_fd*/) {
  UnsetEventCb();
  if (callback == nullptr) return;
  const auto registration = std::make_shared<Registration>();
  registration->callback = std::move(callback);
  auto& [mutex, returned, list] = Registration::All();
  const std::lock_guard<std::mutex> lock(mutex);
  list.push_back(registration);
  registration_ = registration;
}

void NetworkManager::UnsetEventCb() {
  if (registration_ == nullptr) return;
  const auto mine = std::move(registration_);
  auto& [mutex, returned, list] = Registration::All();
  std::unique_lock<std::mutex> lock(mutex);
  mine->ended = true;
  list.erase(std::remove(list.begin(), list.end(), mine), list.end());
  const auto& running = mine->running;
  if (std::find(running.begin(), running.end(), std::this_thread::get_id()) != running.end()) return;
  returned.wait(lock, [&] { return running.empty(); });
  lock.unlock();
  mine->callback = nullptr;  // RaiseEvent may still hold the registration
}

void NetworkManager::RaiseEvent(EventDic& event) {
  const auto me = std::this_thread::get_id();
  auto& [mutex, returned, list] = Registration::All();
  std::unique_lock<std::mutex> lock(mutex);
  const auto all = list;  // a copy, because callbacks may change the list
  for (const auto& each : all) {
    if (each->ended) continue;
    auto& running = each->running;
    running.push_back(me);
    lock.unlock();
    const ScopeExit back([&, &woken = returned] {  // even if the callback throws
      lock.lock();
      running.erase(std::find(running.begin(), running.end(), me));
      woken.notify_all();
    });
    each->callback(event);
  }
}

}  // namespace zeb::util
