// A TCP client connection, with or without TLS. Supplied by the platform.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "util/scoped_fd.h"
#include "util/ssl_wrapper.h"

namespace zeb::util {

/// The basis of a TCP socket: its descriptor and IP version.
class Socket {
 public:
  enum class Protocol : int32_t { kTcp = 1 };
  enum class Domain : int32_t { kIpv4 = 1, kIpv6 = 2 };

  /// The descriptor, or -1 if none could be created. It stays open, and the same, until the destructor.
  [[nodiscard]] int GetFd() const { return fd_.get(); }
  [[nodiscard]] Domain GetDomain() const { return domain_; }
  /// Sets or clears TCP_NODELAY. Returns whether that succeeded.
  bool SetTCPNoDelay(bool enable);

 protected:
  explicit Socket(Domain domain) : domain_(domain) {}
  ~Socket() = default;

  ScopedFd fd_;

 private:
  Domain domain_;
};

/// One connection. Send and Shutdown may be called on any thread, Recv and HasPending on one thread only.
class SocketClient : public Socket {
 public:
  struct SocketClientOption {
    /// TLS settings; null for plain TCP.
    std::shared_ptr<const SslWrapper> ssl;
    /// Limits each Send, and the connect unless `connect_timeout_us` is set. Microseconds.
    int32_t timeout_us = 0;
    /// SO_SNDBUF and SO_RCVBUF. Bytes; 0 keeps the system's default.
    int32_t tx_buf_size = 0;
    int32_t rx_buf_size = 0;
    /// The name or address that the application gave for the broker. The certificate must be valid for it.
    /// TLS only.
    std::string host;
    /// Limits the whole connect, TCP and TLS, if name resolution or earlier attempts have already used part
    /// of `timeout_us`. Microseconds; negative: `timeout_us` applies.
    int32_t connect_timeout_us = -1;
    /// The constructor gives up as soon as this descriptor becomes readable (-1: none). It is neither read
    /// nor closed, and not used after the constructor.
    int cancel_fd = -1;
  };

  /// Recv returns this if nothing has arrived.
  static constexpr ssize_t k_nothing_now = -2;

  /// Connects to `path`: an address literal, ";" and a port. If `iface` is not empty, the connection uses
  /// that interface; a process that may not bind to a device binds to the interface's address instead. Blocks
  /// at most for the option's time-out. IsConnected returns the outcome, and one LOG_ERR line gives the
  /// reason for a failure.
  SocketClient(const std::string& iface, Protocol protocol, Domain domain, const std::string& path,
               SocketClientOption option);
  ~SocketClient();
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;

  /// Whether the constructor established the connection, including the TLS handshake.
  [[nodiscard]] bool IsConnected() const;

  /// Writes all `length` bytes as one unit, or gives up at the option's time-out. Returns the number of bytes
  /// written, or -1 if it could not write any. Units of different threads never interleave. After a unit that
  /// was cut short, or one sent with `last`, nothing more is ever sent: half a packet must not be followed by
  /// another. Never raises SIGPIPE.
  ssize_t Send(const void* data, size_t length, bool last = false);

  /// Reads what has arrived, at most `length` bytes, without waiting. Returns the number of bytes, 0 if the
  /// peer has closed the connection, `k_nothing_now`, or -1 on an error.
  ssize_t Recv(void* data, size_t length);

  /// Whether Recv can return decrypted bytes that the descriptor does not announce. If so, call Recv again
  /// before waiting for the descriptor.
  [[nodiscard]] bool HasPending() const;

  /// Ends the connection in both directions without waiting. Blocked senders return, and later sends are
  /// refused. A TLS peer is told first, if that is possible without waiting. The descriptor stays open.
  void Shutdown();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zeb::util
