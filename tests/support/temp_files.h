// A directory of files that goes away with its owner; keys and certificates made in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace zeb::test {

inline void Shell(const std::string& commands) {
  if (std::system(("set -e; " + commands).c_str()) != 0) throw std::runtime_error(commands);
}

class TempFiles {
 public:
  TempFiles() {
    directory_ = std::filesystem::temp_directory_path() / "zeb_test_XXXXXX";
    (void)!::mkdtemp(directory_.data());
  }
  ~TempFiles() { std::filesystem::remove_all(directory_); }
  TempFiles(const TempFiles&) = delete;

  [[nodiscard]] std::string Path(const std::string& name) const { return directory_ + "/" + name; }
  void Run(const std::string& commands) const { Shell("cd " + directory_ + "; " + commands); }
  /// Makes "<name>.pem" and "<name>.key.pem", and the same as .der; the issuer may be the name itself.
  /// Without `hosts` ("DNS:..,IP:..") it is an authority.
  void MakeIdentity(const std::string& name, const std::string& issuer = "ca", const std::string& hosts = "",
                    int days = 1) const {
    Run("name=" + name + " issuer=" + issuer + " hosts=" + hosts + " days=" + std::to_string(days) +
        R"(; exec 3>&2 2>log; trap '[ $? = 0 ] || cat log >&3' EXIT
extension=${hosts:+subjectAltName=}${hosts:-basicConstraints=critical,CA:TRUE}
signer="-CA $issuer.pem -CAkey $issuer.key.pem"
[ $issuer != $name ] || signer="-signkey $name.key.pem"
openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=$name -addext $extension \
  -keyout $name.key.pem -out $name.csr
openssl x509 -req -in $name.csr -copy_extensions copy -days $days $signer -out $name.pem
openssl x509 -outform DER -in $name.pem -out $name.der
openssl pkcs8 -topk8 -nocrypt -outform DER -in $name.key.pem -out $name.key.der)");
  }

 private:
  std::string directory_;
};

}  // namespace zeb::test
