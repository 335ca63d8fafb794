// The TCP client socket. Send and Shutdown run on any thread, Recv and HasPending on one. No lock is held
// while waiting for the network.
#include "util/socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/linux/deadline.h"
#include "platform/linux/send_turn.h"
#include "platform/linux/tcp_connect.h"
#include "platform/linux/tls_session.h"
#include "util/log.h"
#include "util/scope_exit.h"

namespace zeb::util {
namespace {

// A TLS writer waits for the descriptor in slices: the reading thread may take the very bytes that the writer
// waits for, and the descriptor does not announce them again.
constexpr int64_t k_tls_wait_slice_us = 50'000;

ScopedFd OpenSocket(Socket::Protocol protocol, Socket::Domain domain) {
  if (protocol != Socket::Protocol::kTcp) {
    ZEB_LOG(LOG_ERR, "protocol %d is not supported", static_cast<int>(protocol));
    return ScopedFd();
  }
  const int family = domain == Socket::Domain::kIpv6 ? AF_INET6 : AF_INET;
  ScopedFd fd(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
  const int error = errno;
  if (!fd.valid()) ZEB_LOG(LOG_ERR, "no socket: %s", std::generic_category().message(error).c_str());
  return fd;
}

void SetBufferSize(int fd, int option, int32_t size) {
  if (size <= 0) return;
  if (::setsockopt(fd, SOL_SOCKET, option, &size, sizeof size) == 0) return;
  const int error = errno;
  ZEB_LOG(LOG_WARNING, "buffer size %d not set: %s", size, std::generic_category().message(error).c_str());
}

// Returns the same as TlsSession::Write.
ssize_t WriteTcp(int fd, const void* data, size_t length) {
  for (;;) {
    const ssize_t sent = ::send(fd, data, length, MSG_NOSIGNAL);
    if (sent >= 0) return sent;
    const int error = errno;
    if (error == EINTR) continue;
    if (error == EAGAIN || error == EWOULDBLOCK) return 0;
    ZEB_LOG(LOG_WARNING, "send failed: %s", std::generic_category().message(error).c_str());
    return -1;
  }
}

ssize_t ReadTcp(int fd, void* data, size_t length) {
  const ssize_t received = ::recv(fd, data, length, 0);
  if (received >= 0) return received;
  const int error = errno;
  if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) return SocketClient::k_nothing_now;
  ZEB_LOG(LOG_WARNING, "recv failed: %s", std::generic_category().message(error).c_str());
  return -1;
}

}  // namespace

bool Socket::SetTCPNoDelay(bool enable) {
  const int value = enable ? 1 : 0;
  if (::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) == 0) return true;
  const int error = errno;
  if (fd_.valid()) ZEB_LOG(LOG_WARNING, "delay not set: %s", std::generic_category().message(error).c_str());
  return false;
}

struct SocketClient::State {
  explicit State(SocketClientOption given) : option(std::move(given)) {}

  const SocketClientOption option;
  int fd = -1;
  std::unique_ptr<TlsSession> tls;  // null for plain TCP
  bool connected = false;           // like all above, does not change after the constructor
  SendTurn turn;

  bool Connect(const std::string& iface, Domain domain, const std::string& path);
  ssize_t WriteUnit(const char* data, size_t length, const Deadline& deadline, bool* cut_short);
};

bool SocketClient::State::Connect(const std::string& iface, Domain domain, const std::string& path) {
  const int32_t limit_us = option.connect_timeout_us >= 0 ? option.connect_timeout_us : option.timeout_us;
  const Deadline deadline(limit_us, option.cancel_fd);
  TcpTarget target;
  if (!ParsePath(path, &target)) {
    ZEB_LOG(LOG_ERR, "%s is not an address, ';' and a port", path.c_str());
    return false;
  }
  if (option.ssl != nullptr) {  // first, so that an unusable context contacts nobody
    tls = TlsSession::Create(fd, *option.ssl, option.host.empty() ? target.address : option.host);
    if (tls == nullptr) return false;
  }
  SetBufferSize(fd, SO_SNDBUF, option.tx_buf_size);
  SetBufferSize(fd, SO_RCVBUF, option.rx_buf_size);
  if (!ConnectTcp(fd, domain, iface, target, deadline)) return false;
  return tls == nullptr || tls->Handshake(deadline);
}

ssize_t SocketClient::State::WriteUnit(const char* data, size_t length, const Deadline& deadline,
                                       bool* cut_short) {
  size_t sent = 0;
  bool error = false;
  while (sent < length && !turn.Refused()) {
    short wanted = POLLOUT;
    const ssize_t step = tls != nullptr ? tls->Write(data + sent, length - sent, &wanted)
                                        : WriteTcp(fd, data + sent, length - sent);
    error = step < 0;
    if (error) break;
    sent += static_cast<size_t>(step);
    if (step > 0) continue;
    const int64_t remaining_us = deadline.RemainingUs();
    if (remaining_us == 0) break;
    WaitForDescriptor(fd, wanted,
                      tls != nullptr ? std::min(remaining_us, k_tls_wait_slice_us) : remaining_us);
  }
  // TLS keeps a record that it could not write, and would send it before the next unit.
  *cut_short = error || (sent < length && (sent > 0 || tls != nullptr));
  return sent > 0 || length == 0 ? static_cast<ssize_t>(sent) : -1;
}

SocketClient::SocketClient(const std::string& iface, Protocol protocol, Domain domain,
                           const std::string& path, SocketClientOption option)
    : Socket(domain), state_(std::make_unique<State>(std::move(option))) {
  fd_ = OpenSocket(protocol, domain);
  if (!fd_.valid()) return;
  state_->fd = fd_.get();
  state_->connected = state_->Connect(iface, domain, path);
  // The descriptor stays open. Without this the kernel would continue connecting, and the peer would wait.
  if (!state_->connected) ::shutdown(fd_.get(), SHUT_RDWR);
}

SocketClient::~SocketClient() { Shutdown(); }

bool SocketClient::IsConnected() const { return state_->connected; }

ssize_t SocketClient::Send(const void* data, size_t length, bool last) {
  const Deadline deadline(state_->option.timeout_us);
  if (!state_->connected || !state_->turn.Take(deadline)) return -1;
  bool cut_short = true;  // unless WriteUnit says otherwise; it may throw
  const ScopeExit give([&] { state_->turn.Give(cut_short || last); });
  return state_->WriteUnit(static_cast<const char*>(data), length, deadline, &cut_short);
}

ssize_t SocketClient::Recv(void* data, size_t length) {
  if (!state_->connected) return -1;
  if (length == 0) return k_nothing_now;  // 0 would mean that the peer has closed
  return state_->tls != nullptr ? state_->tls->Read(data, length) : ReadTcp(fd_.get(), data, length);
}

bool SocketClient::HasPending() const {
  return state_->connected && state_->tls != nullptr && state_->tls->HasPending();
}

void SocketClient::Shutdown() {
  state_->turn.Refuse();
  if (!state_->connected) return;
  if (state_->tls != nullptr) state_->tls->CloseNotify();
  ::shutdown(fd_.get(), SHUT_RDWR);  // wakes threads that poll the descriptor
}

}  // namespace zeb::util
