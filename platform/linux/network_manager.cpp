// Addresses from the system's resolver and interface list, and the process-wide registry of event callbacks.
// Any thread; no callback runs with the registry's lock held.
#include "util/network_manager.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <utility>

#include "util/condition.h"
#include "util/log.h"
#include "util/mutex.h"

namespace zeb::util {
namespace {

// The address as text, with the zone where it has one; empty when it cannot be told.
std::string NumericAddress(const sockaddr* address, socklen_t length) {
  char text[NI_MAXHOST] = {};
  const int error = ::getnameinfo(address, length, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
  return error == 0 ? text : std::string();
}

bool IsLinkLocal(const sockaddr* address) {
  if (address->sa_family == AF_INET6)
    return IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
  constexpr uint32_t k_link_local_prefix = 0xA9FE;  // 169.254
  return ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 16 == k_link_local_prefix;
}

// The first global address, else the first link-local one; null when there is none.
const sockaddr* BestAddress(const ifaddrs* first, const std::string& iface, int family) {
  const sockaddr* link_local = nullptr;
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != family) continue;
    if ((entry->ifa_flags & IFF_UP) == 0 || iface != entry->ifa_name) continue;
    if (!IsLinkLocal(entry->ifa_addr)) return entry->ifa_addr;
    if (link_local == nullptr) link_local = entry->ifa_addr;
  }
  return link_local;
}

}  // namespace

bool NetworkManager::IsValidAddress(const std::string& address, bool ipv6) {
  if (address.find('\0') != std::string::npos) return false;
  in6_addr parsed{};  // large enough for either family
  if (!ipv6) return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1;

  const size_t percent = address.find('%');
  if (percent != std::string::npos) {
    const std::string zone = address.substr(percent + 1);
    if (zone.empty() || zone.find('%') != std::string::npos) return false;
  }
  return ::inet_pton(AF_INET6, address.substr(0, percent).c_str(), &parsed) == 1;
}

int NetworkManager::ResolveHostName(const std::string& name, std::vector<std::string>& ipv4,
                                    std::vector<std::string>& ipv6) {
  ipv4.clear();
  ipv6.clear();
  if (name.empty()) return EAI_NONAME;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = ::getaddrinfo(name.c_str(), nullptr, &hints, &found);
  if (error != 0) {
    ZEB_LOG(LOG_DEBUG, "%s not resolved: %s", name.c_str(), ::gai_strerror(error));
    return error;
  }
  for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6) continue;
    std::vector<std::string>& list = entry->ai_family == AF_INET6 ? ipv6 : ipv4;
    std::string text = NumericAddress(entry->ai_addr, entry->ai_addrlen);
    if (text.empty() || std::find(list.begin(), list.end(), text) != list.end()) continue;
    list.push_back(std::move(text));
  }
  ::freeaddrinfo(found);
  return ipv4.empty() && ipv6.empty() ? EAI_NONAME : 0;
}

int NetworkManager::GetIpAddress(const std::string& iface, std::string& address, bool ipv6) {
  address.clear();
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) return 1;
  const sockaddr* const best = BestAddress(first, iface, ipv6 ? AF_INET6 : AF_INET);
  if (best != nullptr) {
    address = NumericAddress(best, ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
    const bool zone_missing = address.find('%') == std::string::npos;
    if (ipv6 && !address.empty() && zone_missing && IsLinkLocal(best)) address += '%' + iface;
  }
  ::freeifaddrs(first);
  return address.empty() ? 1 : 0;
}

/// One callback, known to the registry, to its NetworkManager and to the calls of it that are running.
struct NetworkManager::Registration {
  explicit Registration(EventCallback function) : callback(std::move(function)) {}

  struct Registry {
    Mutex mutex;  // guards the list, and of each registration `active` and `running`
    Condition call_ended;
    std::vector<std::shared_ptr<Registration>> list;
  };
  static Registry& GetRegistry() {
    static auto* const registry = new Registry;  // never freed: threads may raise events during exit
    return *registry;
  }

  bool Begin();
  void End();
  /// Ends the registration; waits for running calls unless it is one of them that asks.
  void Retire();

  EventCallback callback;  // constant while `active`, or a call runs
  bool active = true;
  std::vector<std::thread::id> running;
};

bool NetworkManager::Registration::Begin() {
  MutexLock lock(GetRegistry().mutex);
  if (active) running.push_back(std::this_thread::get_id());
  return active;
}

void NetworkManager::Registration::End() {
  MutexLock lock(GetRegistry().mutex);
  running.erase(std::find(running.begin(), running.end(), std::this_thread::get_id()));
  GetRegistry().call_ended.Broadcast();
}

void NetworkManager::Registration::Retire() {
  Registry& registry = GetRegistry();
  EventCallback doomed;  // destroyed last, without the lock: what it captured may do anything
  MutexLock lock(registry.mutex);
  active = false;
  auto& list = registry.list;
  const auto is_this = [this](const auto& other) { return other.get() == this; };
  list.erase(std::remove_if(list.begin(), list.end(), is_this), list.end());
  // Two calls that retire each other's registration at once must not wait for one another, hence no wait
  // here.
  if (std::find(running.begin(), running.end(), std::this_thread::get_id()) != running.end()) return;
  while (!running.empty()) registry.call_ended.Wait(registry.mutex);
  doomed = std::move(callback);
}

NetworkManager::NetworkManager() = default;

NetworkManager::~NetworkManager() { UnsetEventCb(); }

void NetworkManager::SetEventCb(EventCallback callback) {
  UnsetEventCb();
  if (callback == nullptr) return;
  registration_ = std::make_shared<Registration>(std::move(callback));
  Registration::Registry& registry = Registration::GetRegistry();
  MutexLock lock(registry.mutex);
  registry.list.push_back(registration_);
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

  struct EndOfCall {
    Registration* registration;
    ~EndOfCall() { registration->End(); }
  };
  for (const std::shared_ptr<Registration>& target : targets) {
    if (!target->Begin()) continue;
    const EndOfCall end{target.get()};
    target->callback(event);
  }
}

}  // namespace zeb::util
