// Two clients on a real broker, in both versions, plain and over TLS.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>

#include "tests/platform/certificates.h"
#include "tests/session/session.h"

namespace zeb::test {
namespace {

/// Runs on a free port of loopback for as long as the object lives. `settings` are lines of its
/// configuration.
class Mosquitto {
 public:
  explicit Mosquitto(const std::string& settings) {
    for (int attempt = 0; attempt < 10 && pid_ < 0; ++attempt) {
      port_ = Listener().port;  // free at this moment; another process may take it first
      Start(settings);
    }
  }
  ~Mosquitto() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  Mosquitto(const Mosquitto&) = delete;
  [[nodiscard]] int port() const { return port_; }

 private:
  /// Returns when it accepts connections or has ended by itself: the port was taken, say.
  void Start(const std::string& settings) {
    const std::string config = files_.Path("mosquitto.conf");
    std::ofstream(config) << "listener " << port_ << " 127.0.0.1\nallow_anonymous true\npersistence false\n"
                          << "set_tcp_nodelay true\n"
                          << (::geteuid() == 0 ? "user root\n" : "") << settings;
    std::string words[] = {"/bin/sh", "-c", "exec /usr/sbin/mosquitto -c " + config + " >/dev/null 2>&1"};
    char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    if (::posix_spawn(&pid_, arguments[0], nullptr, nullptr, arguments, environ) != 0) pid_ = -1;
    const std::string path = "127.0.0.1;" + std::to_string(port_);
    for (int look = 0; look < 4'000 && pid_ > 0 && !Connect(path)->IsConnected(); ++look) {
      ::poll(nullptr, 0, 5);
      if (::waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = -1;
    }
  }

  const TempFiles files_;
  int port_ = 0;
  pid_t pid_ = -1;
};

int Subscribe(Session& session, const char* filter, uint8_t qos) {
  MqttWrapper::SubscribeOption subscribe{{{filter, qos}}, 0, {}};
  MqttWrapper::SubscriptionAck ack;
  return session.client.Subscribe(subscribe, &ack) == kSuccess ? ack.reason_code : -1;
}

void ExchangeMessages(const Mosquitto& broker, int32_t protocol, const std::string& ca_file) {
  Session subscriber(protocol);
  auto publisher = std::make_unique<Session>(protocol);
  for (Session* const member : {&subscriber, publisher.get()}) {
    member->option.port = broker.port();
    member->option.tls = !ca_file.empty();
    member->option.ca_file = ca_file;
    member->option.lwt.enable = true;
    member->option.lwt.msg = Message("a/will", "of an orderly end", 1);
    ASSERT_EQ(member->Start(), kSuccess);
  }
  std::vector<std::string> expected;
  for (uint8_t qos = 0; qos <= 2; ++qos) {
    ASSERT_EQ(Subscribe(subscriber, "a/b", qos), qos);
    for (const auto& payload : {std::string(), std::string("\0\xFF\n", 3), std::string(100'000, 'x')}) {
      ASSERT_EQ(publisher->Publish(qos, payload), kSuccess);
      expected.push_back(payload);
      ASSERT_TRUE(subscriber.payloads.Await(expected.size()) == expected) << static_cast<int>(qos);
    }
  }
  MqttWrapper::UnsubscribeOption unsubscribe{{"a/b"}, {}};
  ASSERT_EQ(subscriber.client.Unsubscribe(unsubscribe, nullptr), kSuccess);
  ASSERT_EQ(publisher->Publish(1, "not any more"), kSuccess);
  auto kept = Message("a/kept", "kept", 1, true);
  ASSERT_EQ(publisher->client.Publish(kept), kSuccess);
  ASSERT_EQ(Subscribe(subscriber, "a/+", 2), 2);
  expected.emplace_back("kept");
  EXPECT_TRUE(subscriber.payloads.Await(expected.size()) == expected);
  EXPECT_TRUE(publisher->Healthy());
  EXPECT_EQ(publisher->Stop(), kSuccess);
  publisher->option.lwt.msg.payload = "of a lost client";
  ASSERT_EQ(publisher->Start(), kSuccess);
  publisher.reset();  // without DISCONNECT
  expected.push_back("of a lost client");
  EXPECT_TRUE(subscriber.payloads.Await(expected.size()) == expected);
  EXPECT_EQ(subscriber.Stop(), kSuccess);
  EXPECT_EQ(subscriber.ends.Await(0).size(), 0U);
}

TEST(Mosquitto, PassesEveryQosOnceAndWholeRetainedMessagesAndWills) {
  const TempFiles files;
  const Identity authority = MakeIdentity("authority", nullptr, nullptr);
  files.AddIdentity("ca", authority);
  files.AddIdentity("server", MakeIdentity("broker", "IP:127.0.0.1", &authority));
  for (const std::string& ca_file : {std::string(), files.Path("ca.pem")}) {
    const Mosquitto broker(ca_file.empty() ? ca_file
                                           : "certfile " + files.Path("server.pem") + "\nkeyfile " +
                                                 files.Path("server.key.pem") + '\n');
    for (const int32_t protocol : {k_mqtt311, k_mqtt5}) ExchangeMessages(broker, protocol, ca_file);
  }
}

}  // namespace
}  // namespace zeb::test
