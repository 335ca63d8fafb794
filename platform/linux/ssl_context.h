// What an SslWrapper passes to the TLS sessions, and the text of OpenSSL's errors. Any thread.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <system_error>

#include "util/ssl_wrapper.h"

namespace zeb::util {

/// Frees an OpenSSL object with the function for its type.
template <auto Free>
struct OpensslDeleter {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};

/// Filled by the thread that builds the SslWrapper, then only read.
struct SslWrapper::Context {
  std::unique_ptr<SSL_CTX, OpensslDeleter<SSL_CTX_free>> ctx;  ///< null when the method was refused
  bool own_roots = false;  ///< `ctx` holds the trusted certificates; otherwise the system's are used
  bool usable = false;     ///< cleared for good by the first failed call; no connection is made then
};

/// Why something was refused. `code` is from OpenSSL's error queue, or 0 if OpenSSL was not asked.
inline std::string OpensslReason(unsigned long code) {
  if (code == 0) return "not a valid value";
#ifdef ERR_SYSTEM_ERROR
  if (ERR_SYSTEM_ERROR(code)) return std::generic_category().message(ERR_GET_REASON(code));
#endif
  const char* const reason = ::ERR_reason_error_string(code);
  return reason != nullptr ? reason : "unknown reason";
}

}  // namespace zeb::util
