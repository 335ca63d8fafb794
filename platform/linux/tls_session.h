// One TLS connection over a non-blocking descriptor that it does not own. Any thread: a lock is held around
// OpenSSL's calls, none of which waits.
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
  /// Prepares a session with a peer whose certificate must be valid for `host`, a name or an address literal.
  /// On failure, writes one LOG_ERR line and returns null.
  static std::unique_ptr<TlsSession> Create(int fd, const SslWrapper& ssl, const std::string& host);
  ~TlsSession();
  TlsSession(const TlsSession&) = delete;
  TlsSession& operator=(const TlsSession&) = delete;

  /// Negotiates with the peer and verifies its certificate. On a failure or at the deadline, writes one
  /// LOG_ERR line and returns false.
  bool Handshake(const Deadline& deadline);

  /// Writes as much as it can of the rest of a unit and returns the number of bytes. Returns 0 if the caller
  /// must wait for `*wanted` (POLLIN or POLLOUT) and then pass the same bytes again. Returns -1 on an error,
  /// which is permanent.
  ssize_t Write(const void* data, size_t length, short* wanted);

  /// Like SocketClient::Recv, but `length` must be above 0.
  ssize_t Read(void* data, size_t length);

  /// Whether decrypted bytes are waiting.
  bool HasPending();

  /// Tells the peer that nothing more will come, unless a unit was cut short. Tries once, without waiting.
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
  bool peer_closed_ = false;                   // the descriptor reported the end of the stream
  int io_error_ = 0;                           // errno of the descriptor's last failure
  const Deadline* handshake_limit_ = nullptr;  // set while the handshake runs
  std::string held_;                           // records for which the descriptor had no room yet
  size_t taken_ = 0;                           // bytes of the current unit in these records
  bool established_ = false;
  bool failed_ = false;     // OpenSSL allows no call after an error
  bool unit_open_ = false;  // the last unit is not written completely
};

}  // namespace zeb::util
