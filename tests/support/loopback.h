// Listeners and client sockets, and what is sent through them. Every wait ends at a deadline.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>

#include <future>
#include <vector>

#include "tests/support/mailbox.h"
#include "util/socket.h"

namespace zeb::test {
using util::SocketClient;

inline bool AwaitEvent(int fd, short events, std::chrono::milliseconds deadline = k_deadline) {
  pollfd entry{fd, events, 0};
  return ::poll(&entry, 1, static_cast<int>(deadline.count())) > 0;
}

/// Listens on `wanted`, or on a port of the system's choice.
struct Listener {
  explicit Listener(const std::string& host = "127.0.0.1", int wanted = 0) {
    addrinfo* address = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(wanted).c_str(), nullptr, &address) != 0) return;
    fd = util::ScopedFd(::socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit{k_deadline.count() / 1'000, 0};  // connections inherit it
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::bind(fd.get(), address->ai_addr, address->ai_addrlen);
    ::listen(fd.get(), SOMAXCONN);
    ::getsockname(fd.get(), address->ai_addr, &address->ai_addrlen);
    // An IPv6 address has its port at the same place.
    port = ntohs(reinterpret_cast<sockaddr_in*>(address->ai_addr)->sin_port);
    path = host + ";" + std::to_string(port);
    ::freeaddrinfo(address);
  }

  /// The next connection, with blocking calls that give up at the deadline, as this one does.
  util::ScopedFd Accept() const { return util::ScopedFd(::accept(fd.get(), nullptr, nullptr)); }

  util::ScopedFd fd;
  int port = 0;
  std::string path;  // as SocketClient takes it
};

inline std::unique_ptr<SocketClient> Connect(const std::string& path,
                                             std::shared_ptr<const util::SslWrapper> ssl = nullptr,
                                             const std::string& host = "", int32_t timeout_us = 20'000'000) {
  SocketClient::SocketClientOption option;
  option.ssl = std::move(ssl);
  option.host = host;
  option.timeout_us = timeout_us;
  option.tx_buf_size = 8'192;
  const auto domain = path[0] == ':' ? util::Socket::Domain::kIpv6 : util::Socket::Domain::kIpv4;
  return std::make_unique<SocketClient>("", util::Socket::Protocol::kTcp, domain, path, option);
}

/// The first result of Recv that is not "nothing now".
inline ssize_t AwaitRecv(SocketClient& client, void* data, size_t length) {
  ssize_t result = client.Recv(data, length);
  while (result == SocketClient::k_nothing_now && AwaitEvent(client.GetFd(), POLLIN))
    result = client.Recv(data, length);
  return result;
}

}  // namespace zeb::test
