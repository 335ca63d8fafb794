// The steps of a TCP connect: parse the address, bind to the interface, connect and wait. Any thread.
#include "platform/linux/tcp_connect.h"

#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <system_error>

#include "util/log.h"
#include "util/network_manager.h"

namespace zeb::util {
namespace {

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;

  [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

// Uses the resolver, because it also turns the name of a zone into its number.
bool ParseAddress(Socket::Domain domain, const std::string& address, const std::string& port,
                  SocketAddress* parsed) {
  addrinfo hints{};
  hints.ai_family = domain == Socket::Domain::kIpv6 ? AF_INET6 : AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (::getaddrinfo(address.c_str(), port.c_str(), &hints, &found) != 0) return false;
  parsed->length = found->ai_addrlen;
  std::char_traits<char>::copy(reinterpret_cast<char*>(&parsed->storage),
                               reinterpret_cast<const char*>(found->ai_addr), found->ai_addrlen);
  ::freeaddrinfo(found);
  return true;
}

// The fallback for processes that may not bind to a device. It sets the source address, and thereby the
// interface if routes depend on the source.
bool BindToAddressOf(int fd, Socket::Domain domain, const std::string& iface) {
  std::string own;
  (void)NetworkManager::GetIpAddress(iface, own, domain == Socket::Domain::kIpv6);  // empty on failure
  SocketAddress local;
  if (own.empty() || !ParseAddress(domain, own, "0", &local)) {
    ZEB_LOG(LOG_ERR, "interface %s has no address to connect from", iface.c_str());
    return false;
  }
  if (::bind(fd, local.get(), local.length) == 0) return true;
  const int error = errno;
  ZEB_LOG(LOG_ERR, "cannot bind to %s of %s: %s", own.c_str(), iface.c_str(),
          std::generic_category().message(error).c_str());
  return false;
}

bool BindToInterface(int fd, Socket::Domain domain, const std::string& iface) {
  if (iface.size() >= IFNAMSIZ) {  // cut by the kernel, it could name another interface
    ZEB_LOG(LOG_ERR, "interface name %s is too long", iface.c_str());
    return false;
  }
  if (::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, iface.c_str(), static_cast<socklen_t>(iface.size())) == 0)
    return true;
  const int error = errno;
  if (error == EPERM || error == EACCES || error == ENOPROTOOPT) return BindToAddressOf(fd, domain, iface);
  ZEB_LOG(LOG_ERR, "cannot bind to interface %s: %s", iface.c_str(),
          std::generic_category().message(error).c_str());
  return false;
}

// Returns 0 or an errno.
int ConnectBefore(int fd, const SocketAddress& remote, const Deadline& deadline) {
  if (::connect(fd, remote.get(), remote.length) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;

  if (!deadline.Await(fd, POLLOUT)) return deadline.Cancelled() ? ECANCELED : ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof error;
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

}  // namespace

bool ParsePath(const std::string& path, TcpTarget* target) {
  const size_t separator = path.rfind(';');
  if (separator == std::string::npos || separator == 0) return false;
  target->address = path.substr(0, separator);
  target->port = path.substr(separator + 1);

  uint16_t number = 0;
  const char* const end = target->port.data() + target->port.size();
  const auto [stopped, error] = std::from_chars(target->port.data(), end, number);
  return error == std::errc() && stopped == end && number != 0;
}

bool ConnectTcp(int fd, Socket::Domain domain, const std::string& iface, const TcpTarget& target,
                const Deadline& deadline) {
  SocketAddress remote;
  if (!ParseAddress(domain, target.address, target.port, &remote)) {
    ZEB_LOG(LOG_ERR, "%s is no address of domain %d", target.address.c_str(), static_cast<int>(domain));
    return false;
  }
  if (!iface.empty() && !BindToInterface(fd, domain, iface)) return false;

  const int error = ConnectBefore(fd, remote, deadline);
  if (error == 0) return true;
  ZEB_LOG(LOG_ERR, "connect to %s port %s failed: %s", target.address.c_str(), target.port.c_str(),
          std::generic_category().message(error).c_str());
  return false;
}

}  // namespace zeb::util
