// A connecting TCP client, with or without TLS. Supplied by the platform.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "util/scoped_fd.h"
#include "util/ssl_wrapper.h"

namespace zeb::util {

/// A socket's descriptor and what is true of it whatever it is used for.
class Socket {
 public:
  enum class Protocol : int32_t { kTcp = 1 };
  enum class Domain : int32_t { kIpv4 = 1, kIpv6 = 2 };

  /// The descriptor; -1 when none could be created. It stays valid, and the same, until the destructor.
  [[nodiscard]] int GetFd() const { return fd_.get(); }
  [[nodiscard]] Domain GetDomain() const { return domain_; }
  /// Sets or clears TCP_NODELAY; true on success.
  bool SetTCPNoDelay(bool enable);

 protected:
  explicit Socket(Domain domain) : domain_(domain) {}
  ~Socket() = default;

  ScopedFd fd_;

 private:
  Domain domain_;
};

/// One connection. Send may be called from any number of threads, Recv and HasPending from one thread,
/// Shutdown from any.
class SocketClient : public Socket {
 public:
  struct SocketClientOption {
    /// TLS settings; null for plain TCP.
    std::shared_ptr<const SslWrapper> ssl;
    /// Bound of each Send, and of the connect unless `connect_timeout_us` says otherwise. Microseconds.
    int32_t timeout_us = 0;
    /// SO_SNDBUF and SO_RCVBUF. Bytes; 0 leaves the system's default.
    int32_t tx_buf_size = 0;
    int32_t rx_buf_size = 0;
    /// The broker as the application named it: what its certificate must bear. TLS only.
    std::string host;
    /// Bound of the whole connect, TCP and TLS, where it is not a Send's: name resolution, or an address
    /// tried before, may have used up a part of the time. Microseconds; negative: as `timeout_us`.
    int32_t connect_timeout_us = -1;
    /// Becomes readable when the connect is no longer wanted: the constructor then gives up at once. Not
    /// owned, not read, and used during the constructor only. -1: none.
    int cancel_fd = -1;
  };

  /// Recv: nothing has arrived.
  static constexpr ssize_t k_nothing_now = -2;

  /// Connects to `path`, an address literal, ";" and a port. With a non-empty `iface` the connection
  /// leaves through that interface; where the right to bind to a device is missing, it is bound to the
  /// interface's own address. Blocks for at most the option's time-out; IsConnected tells the outcome, and
  /// one LOG_ERR line why there is no connection.
  SocketClient(const std::string& iface, Protocol protocol, Domain domain, const std::string& path,
               SocketClientOption option);
  ~SocketClient();
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;

  /// Whether the constructor's connect, the TLS handshake included, succeeded.
  [[nodiscard]] bool IsConnected() const;

  /// Writes all `length` bytes as one unit, or gives up at the option's time-out. Returns the bytes
  /// written, or -1 when not even one was. Two threads' units never interleave. Once a unit was cut short
  /// nothing more is ever sent: half a packet must not be followed by another. Nor after a unit that was sent
  /// as the `last`. Never raises SIGPIPE.
  ssize_t Send(const void* data, size_t length, bool last = false);

  /// Takes what has arrived, at most `length` bytes, without waiting: the count; 0 when the peer closed the
  /// connection; `k_nothing_now`; -1 on an error.
  ssize_t Recv(void* data, size_t length);

  /// Whether bytes wait that the descriptor does not announce (already decrypted ones): read again before
  /// waiting for the descriptor.
  [[nodiscard]] bool HasPending() const;

  /// Ends the connection both ways, without waiting: blocked senders return, later sends are refused.
  /// Over TLS the peer is told first, as far as that needs no wait. The descriptor stays valid.
  void Shutdown();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zeb::util
