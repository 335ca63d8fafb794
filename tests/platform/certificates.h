// Keys and certificates made on the spot, and a directory of files that goes away with its owner.
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <memory>
#include <string>

namespace zeb::test {

struct Identity {
  std::shared_ptr<EVP_PKEY> key{EVP_EC_gen("P-256"), EVP_PKEY_free};
  std::shared_ptr<X509> certificate{X509_new(), X509_free};
};

/// An identity signed by `issuer`, or by itself when that is null. `names` is its subjectAltName; without
/// one it is an authority. It was valid until `end_s` seconds from now.
inline Identity MakeIdentity(const char* common_name, const char* names, const Identity* issuer,
                             long end_s = 3'600) {
  Identity made;
  X509* const certificate = made.certificate.get();
  X509_set_version(certificate, 2);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -86'400);
  X509_gmtime_adj(X509_getm_notAfter(certificate), end_s);
  X509_set_pubkey(certificate, made.key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0);
  const Identity& signer = issuer != nullptr ? *issuer : made;
  X509_set_issuer_name(certificate, X509_get_subject_name(signer.certificate.get()));
  X509_EXTENSION* const extension =
      names != nullptr ? X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names)
                       : X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
  X509_sign(certificate, signer.key.get(), EVP_sha256());
  return made;
}

class TempFiles {
 public:
  TempFiles() {
    char pattern[] = "/tmp/zeb_tls_XXXXXX";
    directory_ = ::mkdtemp(pattern);
  }
  ~TempFiles() { std::filesystem::remove_all(directory_); }
  TempFiles(const TempFiles&) = delete;

  [[nodiscard]] std::string Path(const std::string& name) const { return directory_ + "/" + name; }

  /// Writes "<name>" and "<name>.key", each as .pem, with `next`, and as .der; `lock` encrypts the keys.
  void AddIdentity(const std::string& name, const Identity& identity, const Identity* next = nullptr,
                   const EVP_CIPHER* lock = nullptr) const {
    const auto append = [&](const char* type, auto write, auto... what) {
      const std::string path = Path(name + type);
      const std::unique_ptr<BIO, int (*)(BIO*)> file(BIO_new_file(path.c_str(), "ab"), BIO_free);
      write(file.get(), what...);
    };
    append(".der", i2d_X509_bio, identity.certificate.get());
    append(".pem", PEM_write_bio_X509, identity.certificate.get());
    if (next != nullptr) append(".pem", PEM_write_bio_X509, next->certificate.get());
    append(".key.der", i2d_PKCS8PrivateKey_bio, identity.key.get(), lock, "word", 4, nullptr, nullptr);
    append(".key.pem", PEM_write_bio_PKCS8PrivateKey, identity.key.get(), lock, "word", 4, nullptr, nullptr);
  }

 private:
  std::string directory_;
};

}  // namespace zeb::test
