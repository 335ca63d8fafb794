// Asks the kernel about this host's own addresses. Any thread. Never waits for the network.
#pragma once

#include <sys/socket.h>

#include <string>

namespace zeb::util {

/// Returns the address as text, with the zone of an IPv6 address, or an empty string on failure.
std::string NumericAddress(const sockaddr* address, socklen_t length);

/// The IP versions for which the host has an address that reaches other hosts.
struct UsableVersions {
  bool ipv4 = false;
  bool ipv6 = false;
};

/// Looks up the addresses of all interfaces that are up and running. Link-local addresses and those of the
/// loopback interface do not count. Returns false if the kernel does not answer.
bool LookUpUsableVersions(UsableVersions* usable);

/// Returns the IP version, "4" or "6", of a socket whose local address no longer belongs to the host. Returns
/// null if the address still belongs to it (even if the interface is down), if the descriptor is not a socket
/// with an IP address, and if the kernel does not answer.
const char* LostIpVersion(int socket_fd);

}  // namespace zeb::util
