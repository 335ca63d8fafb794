// A real broker, plain or over TLS.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>

#include "tests/platform/certificates.h"
#include "tests/session/session.h"

namespace zeb::test {

/// Runs on a free port of loopback for as long as the object lives.
class Mosquitto {
 public:
  explicit Mosquitto(bool tls) : tls_(tls) {
    const Identity authority = MakeIdentity("authority", nullptr, nullptr);
    files_.AddIdentity("ca", authority);
    files_.AddIdentity("server", MakeIdentity("broker", "IP:127.0.0.1", &authority));
    for (int attempt = 0; attempt < 10 && pid_ < 0; ++attempt) {
      port_ = Listener().port;  // free at this moment; another process may take it first
      Start();
    }
  }
  ~Mosquitto() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  Mosquitto(const Mosquitto&) = delete;

  void LeadHere(MqttWrapper::ConnectOption& option) const {
    option.port = port_;
    option.tls = tls_;
    if (tls_) option.ca_file = files_.Path("ca.pem");
  }

 private:
  /// Returns when it accepts connections or has ended by itself: the port was taken, say.
  void Start() {
    const std::string config = files_.Path("mosquitto.conf"), server = files_.Path("server");
    std::ofstream(config) << "listener " << port_ << " 127.0.0.1\nallow_anonymous true\npersistence false\n"
                          << "set_tcp_nodelay true\n"
                          << (::geteuid() == 0 ? "user root\n" : "")
                          << (tls_ ? "certfile " + server + ".pem\nkeyfile " + server + ".key.pem\n" : "");
    std::string words[] = {"/bin/sh", "-c", "exec /usr/sbin/mosquitto -c " + config + " >/dev/null 2>&1"};
    char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    if (::posix_spawn(&pid_, arguments[0], nullptr, nullptr, arguments, environ) != 0) pid_ = -1;
    const std::string path = "127.0.0.1;" + std::to_string(port_);
    for (int look = 0; look < 4'000 && pid_ > 0 && !Connect(path)->IsConnected(); ++look) {
      ::poll(nullptr, 0, 5);
      if (::waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = -1;
    }
  }

  const bool tls_;
  const TempFiles files_;
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace zeb::test
