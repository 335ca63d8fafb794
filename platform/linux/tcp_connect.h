// Connects a TCP socket to a literal address, through a chosen interface, within a deadline. Any thread.
#pragma once

#include <string>

#include "platform/linux/deadline.h"
#include "util/socket.h"

namespace zeb::util {

/// Where a connection goes, as text.
struct TcpTarget {
  std::string address;  ///< a literal; IPv6 may bear a zone
  std::string port;     ///< decimal, 1 to 65535
};

/// Splits "address;port". False when the text is not of that form.
bool ParsePath(const std::string& path, TcpTarget* target);

/// Connects the non-blocking socket `fd` of the domain; with a non-empty `iface` through that interface.
/// False, after one LOG_ERR line, when that fails or the deadline passes.
bool ConnectTcp(int fd, Socket::Domain domain, const std::string& iface, const TcpTarget& target,
                const Deadline& deadline);

}  // namespace zeb::util
