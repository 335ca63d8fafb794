// The TLS settings of one connection: what is trusted, who the client is, which ciphers it takes.
// The application sees only the two enums; the rest is what a platform supplies.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zeb::util {

/// A TLS context. Built and filled by the thread that starts a client, then only read: any number of
/// connections on any threads may use it.
class SslWrapper {
 public:
  /// Encoding of a certificate or key file.
  enum class FileType : int32_t {
    kPem = 1,  ///< text, "-----BEGIN ..."; several certificates may follow one another
    kDer = 2,  ///< binary ASN.1, one object
  };

  /// Protocol versions that a connection may negotiate.
  enum class Method : int32_t {
    kTls1 = 1,    ///< TLS 1.0 alone; refused, the version is broken
    kTls1_1 = 2,  ///< TLS 1.1 alone; refused, the version is broken
    kTls1_2 = 3,  ///< TLS 1.2 alone
    kTls = 4,     ///< TLS 1.2 or newer; the default
    kTls1_3 = 5,  ///< TLS 1.3 alone
  };

  /// `server` is false for every client. A context that cannot be created or a method that is refused
  /// makes each later call, and the connection itself, fail.
  SslWrapper(bool server, Method method);
  ~SslWrapper();
  SslWrapper(const SslWrapper&) = delete;
  SslWrapper& operator=(const SslWrapper&) = delete;

  /// Allowed ciphers, in order of preference: names of TLS 1.2 ciphers and of TLS 1.3 suites may be
  /// mixed, an element may itself be a colon-separated list. 0 on success; after a failure no
  /// connection is made with this context, rather than one with ciphers that nobody chose.
  int32_t SetCipherLists(const std::vector<std::string>& cipher_lists);

  /// Trusts the certificates of this file and no others. 0 on success, else an error code.
  int32_t SetRootCaFile(const std::string& path, FileType type);

  /// The client's own certificate (a PEM file may hold its chain) and private key. Never prompts: an
  /// encrypted key is an error. 0 on success, else an error code.
  int32_t SetCertAndKeyFile(const std::string& cert, const std::string& key, FileType cert_type,
                            FileType key_type);

  /// The platform's own state, for its socket code.
  struct Context;
  /// Stays where it is as long as the object.
  [[nodiscard]] const Context& context() const { return *context_; }

 private:
  std::unique_ptr<Context> context_;
};

}  // namespace zeb::util
