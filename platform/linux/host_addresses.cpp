// Reads the list of interfaces and their addresses from the kernel. Any thread.
#include "platform/linux/host_addresses.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

#include "util/log.h"
#include "util/network_manager.h"
#include "util/scoped_fd.h"

namespace zeb::util {
namespace {

using InterfaceList = std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)>;

InterfaceList ListInterfaces() {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) {
    const int error = errno;
    ZEB_LOG(LOG_WARNING, "interfaces not listed: %s", std::generic_category().message(error).c_str());
    first = nullptr;
  }
  return {first, ::freeifaddrs};
}

const in6_addr& Ipv6Bytes(const sockaddr* address) {
  return reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
}

uint32_t Ipv4Number(const sockaddr* address) {
  return ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr);
}

bool IsLinkLocal(const sockaddr* address) {
  constexpr uint32_t k_link_local_prefix = 0xA9FE;  // 169.254
  if (address->sa_family == AF_INET6) return IN6_IS_ADDR_LINKLOCAL(&Ipv6Bytes(address));
  return Ipv4Number(address) >> 16 == k_link_local_prefix;
}

bool IsIp(const sockaddr* address) {
  return address != nullptr && (address->sa_family == AF_INET || address->sa_family == AF_INET6);
}

bool IsSameAddress(const sockaddr* a, const sockaddr* b) {
  if (a->sa_family != b->sa_family) return false;
  return a->sa_family == AF_INET6 ? IN6_ARE_ADDR_EQUAL(&Ipv6Bytes(a), &Ipv6Bytes(b)) != 0
                                  : Ipv4Number(a) == Ipv4Number(b);
}

// An interface that has lost its carrier stays up and keeps its addresses, but reaches nobody.
bool ReachesOthers(const ifaddrs& entry) {
  constexpr unsigned int k_running = IFF_UP | IFF_RUNNING;
  return (entry.ifa_flags & (k_running | IFF_LOOPBACK)) == k_running;
}

// Asks the kernel: the list of interfaces lacks some local addresses, such as those of a local prefix.
bool IsForeignToTheHost(const sockaddr_storage& address, socklen_t length) {
  const ScopedFd probe(::socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int error = errno;
  if (!probe.valid()) {
    ZEB_LOG(LOG_WARNING, "own address not checked: %s", std::generic_category().message(error).c_str());
    return false;
  }
  sockaddr_storage any_port = address;
  reinterpret_cast<sockaddr_in*>(&any_port)->sin_port = 0;  // sin6_port is at the same offset
  return ::bind(probe.get(), reinterpret_cast<const sockaddr*>(&any_port), length) != 0 &&
         errno == EADDRNOTAVAIL;
}

// Returns the first global address, otherwise the first link-local one, otherwise null.
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

std::string NumericAddress(const sockaddr* address, socklen_t length) {
  char text[NI_MAXHOST] = {};
  const int error = ::getnameinfo(address, length, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
  return error == 0 ? text : std::string();
}

bool LookUpUsableVersions(UsableVersions* usable) {
  const InterfaceList list = ListInterfaces();
  if (list == nullptr) return false;  // an error, since the loopback interface is always listed
  *usable = {};
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    const sockaddr* const address = entry->ifa_addr;
    if (!IsIp(address) || !ReachesOthers(*entry) || IsLinkLocal(address)) continue;
    (address->sa_family == AF_INET6 ? usable->ipv6 : usable->ipv4) = true;
  }
  return true;
}

const char* LostIpVersion(int socket_fd) {
  sockaddr_storage local{};
  socklen_t length = sizeof local;
  const auto* const address = reinterpret_cast<const sockaddr*>(&local);
  if (::getsockname(socket_fd, reinterpret_cast<sockaddr*>(&local), &length) != 0 || !IsIp(address))
    return nullptr;
  if (!IsForeignToTheHost(local, length)) return nullptr;
  // The kernel also refuses an address that it is still checking for duplicates, but that one is listed. The
  // list comes second because it costs ten times as much.
  const InterfaceList list = ListInterfaces();
  if (list == nullptr) return nullptr;
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next)
    if (IsIp(entry->ifa_addr) && IsSameAddress(entry->ifa_addr, address)) return nullptr;
  return local.ss_family == AF_INET6 ? "6" : "4";
}

int NetworkManager::GetIpAddress(const std::string& iface, std::string& address, bool ipv6) {
  address.clear();
  const InterfaceList list = ListInterfaces();
  const sockaddr* const best = BestAddress(list.get(), iface, ipv6 ? AF_INET6 : AF_INET);
  if (best != nullptr) {
    address = NumericAddress(best, ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
    const bool zone_missing = address.find('%') == std::string::npos;
    if (ipv6 && !address.empty() && zone_missing && IsLinkLocal(best)) address += '%' + iface;
  }
  return address.empty() ? 1 : 0;
}

}  // namespace zeb::util
