// One TLS connection over a non-blocking descriptor that somebody else owns.
// All threads; its lock is held only around OpenSSL's calls, none of which waits.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

#include "platform/linux/deadline.h"
#include "util/mutex.h"
#include "util/ssl_wrapper.h"

struct bio_st;
struct ssl_st;

namespace zeb::util {

class TlsSession {
 public:
  /// Prepares a session with a peer whose certificate must bear `host`, a name or an address literal. Null,
  /// after one LOG_ERR line, when the context is not usable.
  static std::unique_ptr<TlsSession> Create(int fd, const SslWrapper& ssl, const std::string& host);
  ~TlsSession();
  TlsSession(const TlsSession&) = delete;
  TlsSession& operator=(const TlsSession&) = delete;

  /// Negotiates with the peer and verifies it. False, after one LOG_ERR line, on a failure or at the
  /// deadline.
  bool Handshake(const Deadline& deadline);

  /// Writes what it can of the rest of a unit: the count; 0 when it has to wait for `*wanted` (POLLIN or
  /// POLLOUT), after which the same bytes must be offered again; -1 on an error, which is for good.
  ssize_t Write(const void* data, size_t length, short* wanted);

  /// As SocketClient::Recv, with `length` above 0.
  ssize_t Read(void* data, size_t length);

  /// Whether decrypted bytes wait.
  bool HasPending();

  /// Tells the peer that nothing more comes, unless a unit was cut short. Tries once.
  void CloseNotify();

 private:
  explicit TlsSession(int fd) : fd_(fd) {}

  static int BioWrite(bio_st* bio, const char* data, int length);
  static int BioRead(bio_st* bio, char* data, int length);
  static long BioControl(bio_st* bio, int command, long number, void* pointer);
  bool AttachBio();
  bool ExpectHost(const std::string& host);
  bool HandshakeStep(short* wanted);
  bool HandshakeIsOver() const;
  bool Flush();
  std::string FailureReason();

  const int fd_;
  Mutex mutex_;  // guards all below once the handshake is done
  ssl_st* ssl_ = nullptr;
  bool peer_closed_ = false;                   // the descriptor reported its end
  int io_error_ = 0;                           // errno of the descriptor's last failure
  const Deadline* handshake_limit_ = nullptr;  // while the handshake runs
  std::string held_;                           // records for which the descriptor has had no room yet
  size_t taken_ = 0;                           // the unit's bytes in them
  bool established_ = false;
  bool failed_ = false;     // OpenSSL allows no call after an error
  bool unit_open_ = false;  // the last write left a rest
};

}  // namespace zeb::util
