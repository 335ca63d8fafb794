// Every public call from eight threads at once, while connections break, callbacks stop and restart their
// client, and clients are destroyed in the middle of it: nothing races, nothing hangs.
#include <netinet/tcp.h>
#include <openssl/ssl.h>

#include <random>
#include <shared_mutex>

#include "tests/platform/certificates.h"
#include "tests/session/session.h"
#include "tests/support/loopback.h"
#include "tests/support/watchdog.h"

namespace zeb::test {
namespace {

util::ScopedFd ConnectToLoopback(int port) {
  util::ScopedFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  (void)!::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return fd;
}

/// Speaks TLS on a connection for a broker that does not.
void Pump(SSL_CTX* context, const util::ScopedFd near, int broker_port) {
  const util::ScopedFd far = ConnectToLoopback(broker_port);
  const int on = 1;
  for (const int fd : {near.get(), far.get()}) ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const std::shared_ptr<SSL> ssl(SSL_new(context), SSL_free);
  SSL_set_fd(ssl.get(), near.get());
  char data[16'384];
  for (bool open = SSL_accept(ssl.get()) == 1; open;) {
    pollfd ends[] = {{near.get(), POLLIN, 0}, {far.get(), POLLIN, 0}};
    ::poll(ends, 2, -1);
    if (ends[0].revents != 0) {
      const int count = SSL_read(ssl.get(), data, sizeof data);  // a record at most, so none is left inside
      open = count > 0 && ::send(far.get(), data, static_cast<size_t>(count), MSG_NOSIGNAL) == count;
    }
    const ssize_t count = ends[1].revents != 0 ? ::recv(far.get(), data, sizeof data, 0) : 1;
    open = open && count > 0;
    if (open && ends[1].revents != 0) open = SSL_write(ssl.get(), data, static_cast<int>(count)) > 0;
  }
}

class Stress : public testing::Test {
 protected:
  using Random = std::mt19937;
  /// A client that a late disconnect_cb finds gone.
  struct Slot {
    std::shared_mutex mutex;
    std::unique_ptr<MqttWrapper> client = std::make_unique<MqttWrapper>();
  };

  /// Rounds of a second, each with clients of its own. `files` are for TLS.
  void Run(const TempFiles* files) {
    const char* const seconds = std::getenv("ZEB_STRESS_SECONDS");
    for (auto round = static_cast<unsigned>(std::atoi(seconds != nullptr ? seconds : "5")); round > 0;
         --round)
      RunRound(files, round);
    for (const auto* count : {&starts_, &restarts_, &stops_, &handshakes_}) EXPECT_GT(*count, 0);
  }

  void RunRound(const TempFiles* files, unsigned seed) {
    const auto echo = [random = Random(seed)](Connection& client, const Packet& packet) mutable {
      ScriptedBroker::Answer(client, packet);
      client.Send(packet.raw);
      if (random() % 60 == 0) client.Close(random() % 2 == 0);
    };
    ScriptedBroker broker({{MsgType::PUBLISH, echo}});
    const Listener listener;
    const auto front = std::async(std::launch::async, [&] {
      std::vector<std::future<void>> pumps;
      for (auto near = listener.Accept(); near.valid(); near = listener.Accept())
        pumps.push_back(std::async(std::launch::async, Pump, context_.get(), std::move(near), broker.port()));
    });
    const std::shared_ptr<Slot> slots[] = {std::make_shared<Slot>(), std::make_shared<Slot>()};
    std::vector<std::future<void>> threads;
    const int64_t end_us = util::MonotonicUs() + 1'000'000;
    for (unsigned thread = 0; thread < 8; ++thread) {
      threads.push_back(std::async(std::launch::async, [&, random = Random(seed * 8 + thread)]() mutable {
        auto option = Options(broker.port(), k_mqtt311, 1);
        option.tls = files != nullptr;
        if (option.tls) option.port = std::stoi(listener.path.substr(listener.path.find(';') + 1));
        if (option.tls) option.ca_file = files->Path("server.pem");
        while (util::MonotonicUs() < end_us) Call(slots[random() % 2], option, random);
      }));
    }
    threads.clear();
    for (const auto& slot : slots) {
      const std::unique_lock<std::shared_mutex> no_callback(slot->mutex);
      slot->client.reset();
      watchdog_.Alive();
    }
    ::shutdown(listener.fd.get(), SHUT_RDWR);
  }

  void Call(const std::shared_ptr<Slot>& slot, MqttWrapper::ConnectOption& option, Random& random) {
    MqttWrapper& client = *slot->client;
    MqttWrapper::SubscribeOption subscribe{{{"a", 2}}, 0, {}};
    MqttWrapper::UnsubscribeOption unsubscribe{{"a"}, {}};
    std::list<MqttWrapper::PairedString> pairs = {{"key", std::to_string(random())}};
    auto message = Message("a", std::string(random() % 2'000, 'x'), static_cast<uint8_t>(random() % 3));
    const std::function<void()> calls[] = {
        [&] { Prepare(slot, option, random), starts_ += client.StartClient(option, nullptr) == kSuccess; },
        [&] { handshakes_ += client.Publish(message) == kSuccess && message.qos == 2; },
        [&] { (void)(random() % 16 == 0 ? client.StopClient(nullptr) : client.Ping(random() % 2 == 0)); },
        [&] { (void)client.Subscribe(subscribe, nullptr); },
        [&] { (void)client.Unsubscribe(unsubscribe, nullptr); },
        [&] { (void)client.SetConnectOption(option); },
        [&] { EXPECT_LE(client.GetConnectOption().protocol + client.GetStatusInfo().status, 5); },
        [&] { (void)client.SetPubAckUserProperties(pairs), (void)client.SetPubRecUserProperties(pairs); },
        [&] { (void)client.SetPubCompUserProperties(pairs); },
    };
    calls[random() % std::size(calls)]();
    watchdog_.Alive();
  }

  void Prepare(const std::shared_ptr<Slot>& slot, MqttWrapper::ConnectOption& option, Random& random) {
    option.protocol = random() % 2 == 0 ? k_mqtt311 : k_mqtt5;
    option.keep_alive = static_cast<int32_t>(random() % 2);
    option.message_cb = [this, random](auto& received) mutable {
      auto reply = Message("b", "reply", static_cast<uint8_t>(random() % 3));
      if (random() % 20 == 0) (void)received.wrapper->Publish(reply);
      if (random() % 400 == 0) (void)received.wrapper->Ping(random() % 2 == 0);
      if (random() % 40 == 0) stops_ += received.wrapper->StopClient(nullptr) == kSuccess;
    };
    option.disconnect_cb = [this, slot](auto*, int) {
      const std::shared_lock<std::shared_mutex> alive(slot->mutex);
      if (slot->client == nullptr) return;
      auto again = slot->client->GetConnectOption();
      (void)slot->client->StopClient(nullptr);
      restarts_ += slot->client->StartClient(again, nullptr) == kSuccess;
    };
  }

  const std::shared_ptr<SSL_CTX> context_{SSL_CTX_new(TLS_server_method()), SSL_CTX_free};
  std::atomic<int> starts_{0}, restarts_{0}, stops_{0}, handshakes_{0};
  Watchdog watchdog_{"stress"};
};

TEST_F(Stress, EveryCallFromEveryThread) { Run(nullptr); }

TEST_F(Stress, EveryCallFromEveryThreadOverTls) {
  ::signal(SIGPIPE, SIG_IGN);  // of the server's side
  const TempFiles files;
  const Identity server = MakeIdentity("broker", "IP:127.0.0.1", nullptr);
  files.AddIdentity("server", server);
  SSL_CTX_use_certificate(context_.get(), server.certificate.get());
  SSL_CTX_use_PrivateKey(context_.get(), server.key.get());
  Run(&files);
}

}  // namespace
}  // namespace zeb::test
