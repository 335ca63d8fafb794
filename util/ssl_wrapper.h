// TLS settings: trusted certificates, the client's own certificate, protocol versions and ciphers.
// Applications use only the two enums. The platform supplies the rest.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zeb::util {

/// A TLS context. The thread that starts a client builds and fills it. After that it is only read, and any
/// number of connections may use it on any thread.
class SslWrapper {
 public:
  /// Encoding of a certificate or key file.
  enum class FileType : int32_t {
    kPem = 1,  ///< text ("-----BEGIN ..."); may hold several certificates
    kDer = 2,  ///< binary ASN.1; holds one object
  };

  /// Protocol versions that a connection may negotiate.
  enum class Method : int32_t {
    kTls1 = 1,    ///< only TLS 1.0; always refused, because it is broken
    kTls1_1 = 2,  ///< only TLS 1.1; always refused, because it is broken
    kTls1_2 = 3,  ///< only TLS 1.2
    kTls = 4,     ///< TLS 1.2 or newer; the default
    kTls1_3 = 5,  ///< only TLS 1.3
  };

  /// `server` is false for every client. If the method is refused or the context cannot be created, every
  /// later call fails, and so does the connection.
  SslWrapper(bool server, Method method);
  ~SslWrapper();
  SslWrapper(const SslWrapper&) = delete;
  SslWrapper& operator=(const SslWrapper&) = delete;

  /// Sets the allowed ciphers, in order of preference. TLS 1.2 ciphers and TLS 1.3 suites may be mixed, and
  /// an element may be a colon-separated list. Returns 0 on success. After a failure this context makes no
  /// connection, rather than one with ciphers that nobody chose.
  int32_t SetCipherLists(const std::vector<std::string>& cipher_lists);

  /// Trusts only the certificates in this file. Returns 0 or an error code.
  int32_t SetRootCaFile(const std::string& path, FileType type);

  /// Sets the client's certificate (a PEM file may also hold its chain) and private key. Never asks for a
  /// password: an encrypted key is an error. Returns 0 or an error code.
  int32_t SetCertAndKeyFile(const std::string& cert, const std::string& key, FileType cert_type,
                            FileType key_type);

  /// The platform's state, for its sockets.
  struct Context;
  /// The reference is valid as long as this object.
  [[nodiscard]] const Context& context() const { return *context_; }

 private:
  std::unique_ptr<Context> context_;
};

}  // namespace zeb::util
