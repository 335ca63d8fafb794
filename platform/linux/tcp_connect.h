// Connects a TCP socket to an address literal by a deadline, optionally through one interface. Any thread.
#pragma once

#include <string>

#include "platform/linux/deadline.h"
#include "util/socket.h"

namespace zeb::util {

/// The destination of a connection, as text.
struct TcpTarget {
  std::string address;  ///< a literal; an IPv6 one may have a zone
  std::string port;     ///< decimal, 1 to 65535
};

/// Splits "address;port". Returns false if the text does not have that form.
bool ParsePath(const std::string& path, TcpTarget* target);

/// Connects the non-blocking socket `fd`, through `iface` unless that is empty. If that fails or the deadline
/// passes, writes one LOG_ERR line and returns false.
bool ConnectTcp(int fd, Socket::Domain domain, const std::string& iface, const TcpTarget& target,
                const Deadline& deadline);

}  // namespace zeb::util
