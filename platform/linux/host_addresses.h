// What the kernel says of this host's own addresses. Any thread; nothing here waits for the network.
#pragma once

#include <sys/socket.h>

#include <string>

namespace zeb::util {

/// The address as text, an IPv6 one with its zone where it has one; empty when it cannot be told.
std::string NumericAddress(const sockaddr* address, socklen_t length);

/// Of which IP versions the host has an address that reaches other hosts.
struct UsableVersions {
  bool ipv4 = false;
  bool ipv6 = false;
};

/// Looks up the addresses of all interfaces that are up and running; link-local ones and those of the
/// loopback interface do not count. False when the kernel did not tell.
bool LookUpUsableVersions(UsableVersions* usable);

/// The IP version, "4" or "6", of a socket whose own local address is no longer one of the host's. Null when
/// it is, be its interface up or down, when the descriptor is not that of a socket with an IP address, and
/// when it cannot be told.
const char* LostIpVersion(int socket_fd);

}  // namespace zeb::util
