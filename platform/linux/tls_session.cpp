// TLS through OpenSSL. Any thread. The lock is never held while waiting for the network.
#include "platform/linux/tls_session.h"

#include <openssl/bio.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "platform/linux/ssl_context.h"
#include "util/log.h"
#include "util/network_manager.h"
#include "util/scope_exit.h"
#include "util/socket.h"

namespace zeb::util {
namespace {

// Bytes. Only a peer that demands answers without end and reads none of them makes a session hold more.
constexpr size_t k_most_held = 65'536;

// Returns what to wait for, or 0 if waiting does not help.
short WantedEvent(int ssl_error) {
  if (ssl_error == SSL_ERROR_WANT_READ) return POLLIN;
  if (ssl_error == SSL_ERROR_WANT_WRITE) return POLLOUT;
  return 0;
}

bool MustRetry(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// Gives the session a store of its own for the system's trusted certificates: threads share the context.
bool TrustSystemRoots(SSL* ssl) {
  X509_STORE* const store = ::X509_STORE_new();
  if (store == nullptr) return false;
  const bool loaded = ::X509_STORE_set_default_paths(store) == 1;
  ::SSL_set0_verify_cert_store(ssl, store);
  return loaded;
}

}  // namespace

std::unique_ptr<TlsSession> TlsSession::Create(int fd, const SslWrapper& ssl, const std::string& host) {
  const SslWrapper::Context& context = ssl.context();
  if (!context.usable) {
    ZEB_LOG(LOG_ERR, "no TLS connection to %s: an earlier setting was refused", host.c_str());
    return nullptr;
  }
  ::ERR_clear_error();
  std::unique_ptr<TlsSession> session(new TlsSession(fd));
  session->ssl_ = ::SSL_new(context.ctx.get());
  if (session->ssl_ == nullptr || !session->AttachBio() || !session->ExpectHost(host) ||
      (!context.own_roots && !TrustSystemRoots(session->ssl_))) {
    ZEB_LOG(LOG_ERR, "no TLS session for %s: %s", host.c_str(), OpensslReason(::ERR_peek_error()).c_str());
    return nullptr;
  }
  ::SSL_set_connect_state(session->ssl_);
  return session;
}

TlsSession::~TlsSession() { ::SSL_free(ssl_); }

// OpenSSL's own socket BIO can raise SIGPIPE, a signal that belongs to the application.
bool TlsSession::AttachBio() {
  static BIO_METHOD* const method = [] {  // never freed: sessions may outlive main()
    BIO_METHOD* const made = ::BIO_meth_new(::BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "zeb socket");
    if (made == nullptr) return made;
    ::BIO_meth_set_write(made, BioWrite);
    ::BIO_meth_set_read(made, BioRead);
    ::BIO_meth_set_ctrl(made, BioControl);
    return made;
  }();
  BIO* const bio = method != nullptr ? ::BIO_new(method) : nullptr;
  if (bio == nullptr) return false;
  ::BIO_set_data(bio, this);
  ::BIO_set_init(bio, 1);
  ::SSL_set_bio(ssl_, bio, bio);
  return true;
}

// Accepts everything, even if the descriptor has no room. If OpenSSL were left with half a record, a key
// update or an alert that it has to send meanwhile, even while reading, would be an error.
int TlsSession::BioWrite(BIO* bio, const char* data, int length) {
  auto* const session = static_cast<TlsSession*>(::BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  if (session->held_.size() >= k_most_held) {
    session->io_error_ = ENOBUFS;
    return -1;
  }
  session->held_.append(data, static_cast<size_t>(length));
  (void)session->Flush();  // the next write reports a failure
  return length;
}

// Sends as much of the held records as fits. Returns false and sets `io_error_` if some are left.
bool TlsSession::Flush() {
  while (!held_.empty()) {
    const ssize_t sent = ::send(fd_, held_.data(), held_.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      io_error_ = errno;
      return false;
    }
    held_.erase(0, static_cast<size_t>(sent));
  }
  return true;
}

int TlsSession::BioRead(BIO* bio, char* data, int length) {
  auto* const session = static_cast<TlsSession*>(::BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  if (session->HandshakeIsOver()) {  // a peer that never stops sending must not keep OpenSSL reading
    BIO_set_retry_read(bio);
    return -1;
  }
  const ssize_t received = ::recv(session->fd_, data, static_cast<size_t>(length), 0);
  if (received > 0) return static_cast<int>(received);
  if (received == 0) {
    session->peer_closed_ = true;
    return 0;
  }
  session->io_error_ = errno;
  if (MustRetry(session->io_error_)) BIO_set_retry_read(bio);
  return -1;
}

long TlsSession::BioControl(BIO* bio, int command, long, void*) {
  if (command == BIO_CTRL_FLUSH) return 1;
  if (command == BIO_CTRL_EOF) return static_cast<TlsSession*>(::BIO_get_data(bio))->peer_closed_ ? 1 : 0;
  return 0;
}

bool TlsSession::ExpectHost(const std::string& host) {
  X509_VERIFY_PARAM* const expected = ::SSL_get0_param(ssl_);
  if (NetworkManager::IsValidAddress(host, false) || NetworkManager::IsValidAddress(host, true)) {
    const std::string address = host.substr(0, host.find('%'));  // certificates have no zones
    return ::X509_VERIFY_PARAM_set1_ip_asc(expected, address.c_str()) == 1;
  }
  std::string name = host;
  if (!name.empty() && name.back() == '.') name.pop_back();  // certificates omit the root's dot
  // An empty name would match every certificate, and a name with a leading dot all names below it.
  if (name.empty() || name.front() == '.') return false;
  ::SSL_set_hostflags(ssl_, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return ::X509_VERIFY_PARAM_set1_host(expected, name.data(), name.size()) == 1 &&
         SSL_set_tlsext_host_name(ssl_, name.c_str()) == 1;
}

bool TlsSession::HandshakeIsOver() const {
  return handshake_limit_ != nullptr &&
         (handshake_limit_->RemainingUs() == 0 || handshake_limit_->Cancelled());
}

bool TlsSession::Handshake(const Deadline& deadline) {
  handshake_limit_ = &deadline;
  const ScopeExit end([this] { handshake_limit_ = nullptr; });
  short wanted = 0;
  while (!HandshakeStep(&wanted)) {
    if (wanted == 0) return false;
    if (!HandshakeIsOver() && deadline.Await(fd_, wanted)) continue;
    failed_ = true;
    ZEB_LOG(LOG_ERR, "TLS handshake failed: %s", deadline.Cancelled() ? "given up" : "timed out");
    return false;
  }
  return true;
}

// Returns true when done. Otherwise sets `*wanted` to the event to wait for, or to 0 after a failure.
bool TlsSession::HandshakeStep(short* wanted) {
  MutexLock lock(mutex_);
  ::ERR_clear_error();
  const int result = ::SSL_do_handshake(ssl_);
  const bool flushed = Flush();
  established_ = result == 1 && flushed;
  if (established_) return true;
  const bool full = !flushed && MustRetry(io_error_);
  *wanted = full ? short{POLLOUT} : WantedEvent(::SSL_get_error(ssl_, result));
  if (*wanted != 0) return false;
  failed_ = true;
  ZEB_LOG(LOG_ERR, "TLS handshake failed: %s", FailureReason().c_str());
  return false;
}

std::string TlsSession::FailureReason() {
  const long verified = ::SSL_get_verify_result(ssl_);
  if (!established_ && verified != X509_V_OK) return ::X509_verify_cert_error_string(verified);
  if (peer_closed_) return "connection closed by the peer";
  const unsigned long code = ::ERR_peek_error();
  return code != 0 ? OpensslReason(code) : std::generic_category().message(io_error_);
}

ssize_t TlsSession::Write(const void* data, size_t length, short* wanted) {
  MutexLock lock(mutex_);
  if (failed_) return -1;
  unit_open_ = true;
  ::ERR_clear_error();
  if (taken_ == 0 && ::SSL_write_ex(ssl_, data, length, &taken_) != 1) {
    *wanted = WantedEvent(::SSL_get_error(ssl_, 0));
    if (*wanted != 0) return 0;
    failed_ = true;
  } else if (Flush()) {
    unit_open_ = taken_ < length;
    return static_cast<ssize_t>(std::exchange(taken_, 0));
  } else if (MustRetry(io_error_)) {
    *wanted = POLLOUT;
    return 0;
  }
  // If only the descriptor failed, what the peer sent before can still be read.
  ZEB_LOG(LOG_WARNING, "TLS write failed: %s", FailureReason().c_str());
  return -1;
}

ssize_t TlsSession::Read(void* data, size_t length) {
  MutexLock lock(mutex_);
  if (peer_closed_) return 0;
  if (failed_) return -1;
  ::ERR_clear_error();
  size_t received = 0;
  const int result = ::SSL_read_ex(ssl_, data, length, &received);
  if (result == 1) return static_cast<ssize_t>(received);
  const int ssl_error = ::SSL_get_error(ssl_, result);
  if (WantedEvent(ssl_error) != 0) return SocketClient::k_nothing_now;
  if (ssl_error == SSL_ERROR_ZERO_RETURN) return 0;
  failed_ = true;
  if (peer_closed_) return 0;  // TCP was closed in order, only without a TLS alert
  ZEB_LOG(LOG_WARNING, "TLS read failed: %s", FailureReason().c_str());
  return -1;
}

bool TlsSession::HasPending() {
  MutexLock lock(mutex_);
  return !failed_ && ::SSL_pending(ssl_) > 0;
}

void TlsSession::CloseNotify() {
  MutexLock lock(mutex_);
  if (!established_ || failed_ || unit_open_) return;
  if ((::SSL_get_shutdown(ssl_) & SSL_SENT_SHUTDOWN) != 0)
    return;  // a second call would read and discard data
  ::ERR_clear_error();
  (void)::SSL_shutdown(ssl_);  // the connection ends now even if this fails
}

}  // namespace zeb::util
