// A platform of one's own, without its socket: threads, wake locks that are only remembered, brokers that are
// named by their addresses, no TLS and no choice of an interface. What each call must promise:
// docs/platform.md.
#include <arpa/inet.h>

#include <algorithm>
#include <csignal>
#include <mutex>
#include <set>

#include "util/log.h"
#include "util/network_manager.h"
#include "util/psm_manager.h"
#include "util/ssl_wrapper.h"
#include "util/thread.h"

namespace zeb::psm {
namespace {

struct Names {
  std::mutex mutex;  // guards the next
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

constexpr int32_t k_not_supported = 95;  // what a setter returns reaches the application as it stands

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

// ---- No TLS: a context holds nothing, and a socket that is given one does not connect.

struct SslWrapper::Context {};
SslWrapper::SslWrapper(bool /*server*/, Method /*method*/) {}
SslWrapper::~SslWrapper() = default;
int32_t SslWrapper::SetCipherLists(const std::vector<std::string>& /*lists*/) { return k_not_supported; }
int32_t SslWrapper::SetRootCaFile(const std::string& /*path*/, FileType /*type*/) { return k_not_supported; }
int32_t SslWrapper::SetCertAndKeyFile(const std::string& /*cert*/, const std::string& /*key*/,
                                      FileType /*cert_type*/, FileType /*key_type*/) {
  return k_not_supported;
}

// ---- Addresses, and news about their loss

struct NetworkManager::Registration {
  EventCallback callback;
  std::recursive_mutex calls;  // held over each call, which may end its own registration; guards the next
  bool ended = false;

  static inline std::mutex mutex;  // guards the next; held over no call
  static inline auto& all = *new std::vector<std::shared_ptr<Registration>>;  // never freed, like the names
};

NetworkManager::NetworkManager() = default;
NetworkManager::~NetworkManager() { UnsetEventCb(); }

bool NetworkManager::IsValidAddress(const std::string& address, bool ipv6) {
  if (address.find('\0') != std::string::npos) return false;
  in6_addr parsed;  // large enough for either family
  if (!ipv6) return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1;
  const size_t zone = address.find('%');  // which is neither empty nor followed by another
  if (zone + 1 == address.size() || address.find('%', zone + 1) != std::string::npos) return false;
  return ::inet_pton(AF_INET6, address.substr(0, zone).c_str(), &parsed) == 1;
}

// A platform with names asks for them on a thread of its own: the system's resolver knows no time-out.
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

// Where the device learns that it has lost its last address, it calls RaiseEvent with
// EventDic::k_address_lost.
void NetworkManager::SetEventCb(EventCallback callback, int /*socket_fd*/) {
  UnsetEventCb();
  if (callback == nullptr) return;
  registration_ = std::make_shared<Registration>();
  registration_->callback = std::move(callback);
  const std::lock_guard<std::mutex> lock(Registration::mutex);
  Registration::all.push_back(registration_);
}

void NetworkManager::UnsetEventCb() {
  if (registration_ == nullptr) return;
  const auto ended = std::move(registration_);
  {
    const std::lock_guard<std::mutex> lock(Registration::mutex);
    auto& all = Registration::all;
    all.erase(std::remove(all.begin(), all.end(), ended), all.end());
  }
  const std::lock_guard<std::recursive_mutex> no_call(ended->calls);
  ended->ended = true;
}

void NetworkManager::RaiseEvent(EventDic& event) {
  std::vector<std::shared_ptr<Registration>> all;
  {
    const std::lock_guard<std::mutex> lock(Registration::mutex);
    all = Registration::all;
  }
  for (const auto& each : all) {
    const std::lock_guard<std::recursive_mutex> call(each->calls);
    if (!each->ended) each->callback(event);
  }
}

}  // namespace zeb::util
