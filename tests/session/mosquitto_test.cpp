// Two clients on a real broker: every QoS in both versions, plain and over TLS; what the broker keeps for
// them.
#include <poll.h>
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
  explicit Mosquitto(const std::string& settings = "") : settings_(settings) {
    for (int attempt = 0; attempt < 10 && pid_ < 0; ++attempt) {
      port_ = ScriptedBroker().port();  // free at this moment; another process may take it first
      Start();
    }
  }
  ~Mosquitto() { Kill(); }
  Mosquitto(const Mosquitto&) = delete;

  /// Returns when it accepts connections.
  void Start() {
    const std::string config = files_.Path("mosquitto.conf");
    std::ofstream(config) << "listener " << port_ << " 127.0.0.1\nallow_anonymous true\npersistence false\n"
                          << "set_tcp_nodelay true\n"
                          << (::geteuid() == 0 ? "user root\n" : "") << settings_;
    std::string words[] = {"/bin/sh", "-c", "exec /usr/sbin/mosquitto -c " + config + " >/dev/null 2>&1"};
    char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    if (::posix_spawn(&pid_, arguments[0], nullptr, nullptr, arguments, environ) != 0) pid_ = -1;
    for (int look = 0; look < 4'000 && pid_ > 0; ++look) {
      if (ConnectToLoopback(port_).valid()) return;
      ::poll(nullptr, 0, 5);
      if (::waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = -1;  // it ended by itself: the port was taken, say
    }
    Kill();
  }
  /// At once, as a crash would.
  void Kill() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  [[nodiscard]] int port() const { return port_; }

 private:
  const TempFiles files_;
  const std::string settings_;
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
  Session publisher(protocol);
  for (Session* const member : {&subscriber, &publisher}) {
    member->option.port = broker.port();
    member->option.tls = !ca_file.empty();
    member->option.ca_file = ca_file;
    ASSERT_EQ(member->Start(), kSuccess);
  }
  std::vector<std::string> expected;
  for (uint8_t qos = 0; qos <= 2; ++qos) {
    ASSERT_EQ(Subscribe(subscriber, "a/b", qos), qos);
    for (const auto& payload : {std::string(), std::string("\0\xFF\n", 3), std::string(100'000, 'x')}) {
      ASSERT_EQ(publisher.Publish(qos, payload), kSuccess);
      expected.push_back(payload);
      ASSERT_TRUE(subscriber.payloads.Await(expected.size()) == expected) << static_cast<int>(qos);
    }
  }
  ASSERT_EQ(Subscribe(subscriber, "a/last", 2), 2);
  MqttWrapper::UnsubscribeOption unsubscribe{{"a/b"}, {}};
  ASSERT_EQ(subscriber.client.Unsubscribe(unsubscribe, nullptr), kSuccess);
  ASSERT_EQ(publisher.Publish(1, "not any more"), kSuccess);
  auto last = Message("a/last", "last", 2);
  ASSERT_EQ(publisher.client.Publish(last), kSuccess);
  expected.emplace_back("last");
  EXPECT_TRUE(subscriber.payloads.Await(expected.size()) == expected);
  for (Session* const member : {&subscriber, &publisher}) {
    EXPECT_TRUE(member->Healthy());
    EXPECT_EQ(member->Stop(), kSuccess);
    EXPECT_EQ(member->ends.Await(0).size(), 0U);
  }
}

TEST(Mosquitto, PassesEveryQosOnceAndWhole) {
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

TEST(Mosquitto, KeepsRetainedMessagesPublishesWillsAndMayComeBack) {
  Mosquitto broker;
  for (const int32_t protocol : {k_mqtt311, k_mqtt5}) {
    SCOPED_TRACE(protocol);
    Session watcher(protocol);
    Session orderly(protocol);
    auto lost = std::make_unique<Session>(protocol);
    for (Session* const member : {&watcher, &orderly, lost.get()}) {
      member->option.port = broker.port();
      member->option.lwt.enable = true;
      member->option.lwt.msg = Message("a/will", member == lost.get() ? "lost" : "orderly", 1);
      ASSERT_EQ(member->Start(), kSuccess);
    }
    auto kept = Message("a/kept", "state", 1);
    kept.retain = true;
    ASSERT_EQ(lost->client.Publish(kept), kSuccess);
    ASSERT_EQ(Subscribe(watcher, "a/#", 1), 1);
    EXPECT_EQ(watcher.payloads.Await(1), std::vector<std::string>{"state"});
    ASSERT_EQ(orderly.Stop(), kSuccess);
    lost.reset();  // without DISCONNECT
    EXPECT_EQ(watcher.payloads.Await(2), (std::vector<std::string>{"state", "lost"}));
    broker.Kill();
    broker.Start();
    ASSERT_EQ(watcher.ends.Await(1).size(), 1U);
    EXPECT_NE(watcher.Publish(1), kSuccess);
    ASSERT_EQ(watcher.Stop(), kSuccess);
    ASSERT_EQ(watcher.Start(), kSuccess);
    EXPECT_EQ(Subscribe(watcher, "a/b", 2), 2);
    EXPECT_EQ(watcher.Publish(2, "back"), kSuccess);
    EXPECT_EQ(watcher.payloads.Await(3).back(), "back");
  }
}

}  // namespace
}  // namespace zeb::test
