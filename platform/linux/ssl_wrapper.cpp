// Fills OpenSSL contexts: versions, ciphers, trusted certificates, the client's own certificate and key.
// One thread fills a context, before any connection uses it.
#include "util/ssl_wrapper.h"

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>

#include "platform/linux/ssl_context.h"
#include "util/log.h"

namespace zeb::util {
namespace {

using BioPtr = std::unique_ptr<BIO, OpensslDeleter<BIO_free>>;
using CertificatePtr = std::unique_ptr<X509, OpensslDeleter<X509_free>>;
using StorePtr = std::unique_ptr<X509_STORE, OpensslDeleter<X509_STORE_free>>;

struct VersionRange {
  SslWrapper::Method method;
  int oldest;
  int newest;  // 0: no limit
};

constexpr VersionRange k_version_ranges[] = {
    {SslWrapper::Method::kTls1_2, TLS1_2_VERSION, TLS1_2_VERSION},
    {SslWrapper::Method::kTls, TLS1_2_VERSION, 0},
    {SslWrapper::Method::kTls1_3, TLS1_3_VERSION, TLS1_3_VERSION},
};

const VersionRange* FindVersions(SslWrapper::Method method) {
  for (const VersionRange& range : k_version_ranges)
    if (range.method == method) return &range;
  return nullptr;
}

// An encrypted key must fail: a prompt would block a program that has no terminal.
int RefusePassword(char*, int, int, void*) { return -1; }

// The result of a refusal for which OpenSSL has no code. Like OpenSSL's codes, it is not a value of Result.
constexpr int32_t k_unusable = ERR_PACK(ERR_LIB_SSL, 0, ERR_R_SSL_LIB);

// Makes the context unusable for good. Logs the root cause, which OpenSSL queues first. Returns the outermost
// error, which becomes the caller's result.
int32_t Fail(SslWrapper::Context* context, const char* what, const std::string& subject) {
  context->usable = false;
  const std::string reason = OpensslReason(::ERR_peek_error());
  const auto code = static_cast<int32_t>(::ERR_peek_last_error());
  ::ERR_clear_error();
  ZEB_LOG(LOG_ERR, "%s %s refused: %s", what, subject.c_str(), reason.c_str());
  return code != 0 ? code : k_unusable;
}

bool KnownType(SslWrapper::FileType type) {
  return type == SslWrapper::FileType::kPem || type == SslWrapper::FileType::kDer;
}

int OpensslType(SslWrapper::FileType type) {
  return type == SslWrapper::FileType::kDer ? SSL_FILETYPE_ASN1 : SSL_FILETYPE_PEM;
}

bool LoadRoots(X509_STORE* store, const std::string& path, SslWrapper::FileType type) {
  if (type == SslWrapper::FileType::kPem)
    return ::X509_STORE_load_locations(store, path.c_str(), nullptr) == 1;
  const BioPtr file(::BIO_new_file(path.c_str(), "rb"));
  if (file == nullptr) return false;
  const CertificatePtr certificate(::d2i_X509_bio(file.get(), nullptr));
  return certificate != nullptr && ::X509_STORE_add_cert(store, certificate.get()) == 1;
}

bool LoadCertificate(SSL_CTX* ctx, const std::string& path, SslWrapper::FileType type) {
  if (type == SslWrapper::FileType::kPem) return ::SSL_CTX_use_certificate_chain_file(ctx, path.c_str()) == 1;
  return ::SSL_CTX_use_certificate_file(ctx, path.c_str(), OpensslType(type)) == 1;
}

// Appends each cipher's name to the list of its protocol version.
void SplitCipherLists(const std::vector<std::string>& lists, std::string* tls1_2, std::string* tls1_3) {
  for (const std::string& list : lists) {
    for (size_t begin = 0, end = 0; begin < list.size(); begin = end + 1) {
      end = std::min(list.find(':', begin), list.size());
      if (end == begin) continue;
      const std::string name = list.substr(begin, end - begin);
      std::string& target = name.compare(0, 4, "TLS_") == 0 ? *tls1_3 : *tls1_2;
      if (!target.empty()) target += ':';
      target += name;
    }
  }
}

// OpenSSL sets the ciphers of the two versions separately, and a version that is not set keeps its defaults.
// A version for which no cipher was named is therefore disabled.
bool SetCiphers(SSL_CTX* ctx, const std::string& tls1_2, const std::string& tls1_3) {
  if (tls1_2.empty()) {
    if (::SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION) != 1) return false;
  } else if (::SSL_CTX_set_cipher_list(ctx, (tls1_2 + ":!aNULL:!eNULL").c_str()) != 1) {
    return false;
  }
  if (tls1_3.empty()) return ::SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION) == 1;
  return ::SSL_CTX_set_ciphersuites(ctx, tls1_3.c_str()) == 1;
}

bool SomeVersionLeft(SSL_CTX* ctx) {
  const auto newest = ::SSL_CTX_get_max_proto_version(ctx);
  return newest == 0 || ::SSL_CTX_get_min_proto_version(ctx) <= newest;
}

}  // namespace

SslWrapper::SslWrapper(bool server, Method method) : context_(std::make_unique<Context>()) {
  const VersionRange* const versions = FindVersions(method);
  if (versions == nullptr) {
    ZEB_LOG(LOG_ERR, "TLS method %d refused", static_cast<int>(method));
    return;
  }
  ::ERR_clear_error();
  context_->ctx.reset(::SSL_CTX_new(server ? ::TLS_server_method() : ::TLS_client_method()));
  SSL_CTX* const ctx = context_->ctx.get();
  if (ctx == nullptr || ::SSL_CTX_set_min_proto_version(ctx, versions->oldest) != 1 ||
      ::SSL_CTX_set_max_proto_version(ctx, versions->newest) != 1) {
    (void)Fail(context_.get(), "TLS", "context");  // later calls and the connection report it
    return;
  }
  ::SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  ::SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION);
  // A unit is written again from where it stopped, not from its start.
  ::SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  ::SSL_CTX_set_default_passwd_cb(ctx, RefusePassword);
  context_->usable = true;
}

SslWrapper::~SslWrapper() = default;

int32_t SslWrapper::SetCipherLists(const std::vector<std::string>& cipher_lists) {
  if (!context_->usable) return k_unusable;
  std::string tls1_2;
  std::string tls1_3;
  SplitCipherLists(cipher_lists, &tls1_2, &tls1_3);
  ::ERR_clear_error();
  SSL_CTX* const ctx = context_->ctx.get();
  if ((tls1_2.empty() && tls1_3.empty()) || !SetCiphers(ctx, tls1_2, tls1_3) || !SomeVersionLeft(ctx))
    return Fail(context_.get(), "cipher list", tls1_2 + " " + tls1_3);
  return 0;
}

int32_t SslWrapper::SetRootCaFile(const std::string& path, FileType type) {
  if (!context_->usable) return k_unusable;
  ::ERR_clear_error();
  StorePtr store(::X509_STORE_new());
  if (!KnownType(type) || store == nullptr || !LoadRoots(store.get(), path, type))
    return Fail(context_.get(), "root CA file", path);
  // Every certificate in the file is trusted, even that of an intermediate authority or of the broker itself.
  ::X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
  ::SSL_CTX_set_cert_store(context_->ctx.get(), store.release());
  context_->own_roots = true;
  return 0;
}

int32_t SslWrapper::SetCertAndKeyFile(const std::string& cert, const std::string& key, FileType cert_type,
                                      FileType key_type) {
  if (!context_->usable) return k_unusable;
  ::ERR_clear_error();
  SSL_CTX* const ctx = context_->ctx.get();
  if (!KnownType(cert_type) || !LoadCertificate(ctx, cert, cert_type))
    return Fail(context_.get(), "certificate file", cert);
  if (!KnownType(key_type) || ::SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), OpensslType(key_type)) != 1 ||
      ::SSL_CTX_check_private_key(ctx) != 1)
    return Fail(context_.get(), "key file", key);
  return 0;
}

}  // namespace zeb::util
