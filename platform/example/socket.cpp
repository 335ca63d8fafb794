// The example platform's socket: plain TCP. Send and Shutdown run on any thread, Recv on one.
#include "util/socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <list>
#include <new>
#include <system_error>
#include <utility>

#include "util/boot_clock.h"
#include "util/condition.h"
#include "util/log.h"

namespace zeb::util {
namespace {

// Waits for `fd`. Returns false if the clock reaches `end_us` or `cancel_fd` (-1: none) is readable first.
bool Await(int fd, short events, int64_t end_us, int cancel_fd = -1) {
  for (;;) {
    const int64_t left_us = std::max<int64_t>(end_us - MonotonicUs(), 0);
    pollfd entries[] = {{fd, events, 0}, {cancel_fd, POLLIN, 0}};
    const int ready = ::poll(entries, 2, static_cast<int>((left_us + 999) / 1'000));
    if (ready > 0) return entries[1].revents == 0;
    if (left_us == 0) return false;  // otherwise a signal arrived
  }
}

// Connects to `path`: an address literal, ";" and a port. Returns 0 or an errno.
int ConnectTo(int fd, int family, const std::string& path, int64_t end_us, int cancel_fd) {
  const size_t separator = path.rfind(';');
  if (separator == std::string::npos) return EINVAL;
  const char* const port = path.c_str() + separator + 1;
  const char* const end = path.c_str() + path.size();
  uint16_t number = 0;  // checked here, because the resolver cuts larger numbers to 16 bits
  const auto [stopped, error_code] = std::from_chars(port, end, number);
  if (error_code != std::errc() || stopped != end || number == 0) return EINVAL;
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* remote = nullptr;
  if (::getaddrinfo(path.substr(0, separator).c_str(), port, &hints, &remote) != 0) return EINVAL;
  int error = ::connect(fd, remote->ai_addr, remote->ai_addrlen) == 0 ? 0 : errno;
  ::freeaddrinfo(remote);
  if (error != EINPROGRESS && error != EINTR) return error;
  if (!Await(fd, POLLOUT, end_us, cancel_fd)) return MonotonicUs() < end_us ? ECANCELED : ETIMEDOUT;
  socklen_t size = sizeof error;
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

}  // namespace

bool Socket::SetTCPNoDelay(bool enable) {
  const int value = enable ? 1 : 0;
  return ::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) == 0;
}

// Senders take turns in order of arrival, so that units do not mix and no sender starves.
struct SocketClient::State {
  bool TakeTurn(int64_t end_us) {
    MutexLock lock(mutex);
    auto place = senders.end();
    try {
      place = senders.insert(place, 0);
    } catch (const std::bad_alloc&) {
      return false;
    }
    while (!refused && senders.begin() != place) {
      const int64_t left_us = end_us - MonotonicUs();
      if (left_us <= 0) break;
      (void)changed.WaitUntil(mutex, left_us);
    }
    if (!refused && senders.begin() == place) return true;
    senders.erase(place);
    changed.Broadcast();  // the next sender may now be the first
    return false;
  }
  void GiveTurn(bool refuse) {
    MutexLock lock(mutex);
    senders.pop_front();
    refused = refused || refuse;
    changed.Broadcast();
  }
  bool Refused() {
    MutexLock lock(mutex);
    return refused;
  }

  SocketClientOption option;
  bool connected = false;  // like `option`, does not change after the constructor
  Mutex mutex;             // guards all below
  Condition changed;
  std::list<char> senders;  // oldest first; the first one writes, the others wait
  bool refused = false;     // nothing more is sent
};

SocketClient::SocketClient(const std::string& iface, Protocol /*protocol*/, Domain domain,
                           const std::string& path, SocketClientOption option)
    : Socket(domain), state_(std::make_unique<State>()) {
  const int family = domain == Domain::kIpv6 ? AF_INET6 : AF_INET;
  fd_ = ScopedFd(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
  int error = fd_.valid() ? 0 : errno;
  const SocketClientOption& given = state_->option = std::move(option);
  const int64_t limit_us = given.connect_timeout_us >= 0 ? given.connect_timeout_us : given.timeout_us;
  if (!iface.empty() || given.ssl != nullptr) error = EOPNOTSUPP;
  if (error == 0) error = ConnectTo(fd_.get(), family, path, MonotonicUs() + limit_us, given.cancel_fd);
  state_->connected = error == 0;
  if (error == 0) return;
  ZEB_LOG(LOG_ERR, "no connection to %s: %s", path.c_str(), std::generic_category().message(error).c_str());
  ::shutdown(fd_.get(), SHUT_RDWR);  // otherwise the kernel would continue connecting
}

SocketClient::~SocketClient() { Shutdown(); }

bool SocketClient::IsConnected() const { return state_->connected; }

ssize_t SocketClient::Send(const void* data, size_t length, bool last) {
  const int64_t end_us = MonotonicUs() + state_->option.timeout_us;
  if (!state_->connected || !state_->TakeTurn(end_us)) return -1;
  size_t sent = 0;
  bool failed = false;
  while (sent < length && !failed && !state_->Refused()) {
    const ssize_t step =
        ::send(fd_.get(), static_cast<const char*>(data) + sent, length - sent, MSG_NOSIGNAL);
    if (step > 0) sent += static_cast<size_t>(step);
    failed = step < 0 && errno != EINTR && errno != EAGAIN;
    if (step < 0 && errno == EAGAIN && !Await(fd_.get(), POLLOUT, end_us)) break;
  }
  // Half a packet must not be followed by another.
  state_->GiveTurn(last || failed || (sent > 0 && sent < length));
  return sent > 0 || length == 0 ? static_cast<ssize_t>(sent) : -1;
}

ssize_t SocketClient::Recv(void* data, size_t length) {
  if (!state_->connected) return -1;
  if (length == 0) return k_nothing_now;  // 0 would mean that the peer has closed
  const ssize_t received = ::recv(fd_.get(), data, length, 0);
  if (received >= 0) return received;
  return errno == EAGAIN || errno == EINTR ? k_nothing_now : -1;
}

bool SocketClient::HasPending() const { return false; }  // the descriptor announces everything

void SocketClient::Shutdown() {
  {
    MutexLock lock(state_->mutex);
    state_->refused = true;
    state_->changed.Broadcast();
  }
  ::shutdown(fd_.get(), SHUT_RDWR);  // wakes threads that wait for the descriptor
}

}  // namespace zeb::util
