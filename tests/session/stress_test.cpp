// Every public call from eight threads at once, while connections break, callbacks stop and restart their
// client, and clients are destroyed in the middle of it: nothing races, nothing hangs.
#include <random>
#include <shared_mutex>

#include "tests/session/session.h"
#include "tests/support/temp_files.h"
#include "tests/support/watchdog.h"

namespace zeb::test {
namespace {

/// A real broker over TLS, on a port of loopback that is free.
struct TlsBroker {
  TlsBroker() {
    files.MakeIdentity("ca", "ca");
    files.MakeIdentity("server", "ca", "IP:127.0.0.1");
    std::string ports;  // free at this moment; another process may take them first
    for (int i = 0; i < 5; ++i) ports += std::to_string(Listener().port) + " ";
    files.Run("for port in " + ports + R"sh(; do
  printf '%s\n' "listener $port 127.0.0.1" "user $(id -un)" 'certfile server.pem' 'keyfile server.key.pem' \
    'allow_anonymous true' 'set_tcp_nodelay true' 'connection_messages false' >conf
  : >log
  PATH=$PATH:/usr/sbin timeout $((300 + 10 * ${ZEB_STRESS_SECONDS:-5})) \
    mosquitto -c conf >log 2>&1 & echo $! >pid
  for look in $(seq 1000); do ! grep -qE ' running$|rror' log || break; sleep 0.01; done
  ! grep -q ' running$' log || break
done; ln -s $port port)sh");
  }
  ~TlsBroker() { files.Run("kill $(cat pid) || true"); }
  void LeadHere(MqttWrapper::ConnectOption& option) const {
    option.tls = true;
    option.port = std::stoi(std::filesystem::read_symlink(files.Path("port")));
    option.ca_file = files.Path("ca.pem");
  }

  const TempFiles files;
};

class Stress : public testing::Test {
 protected:
  using Random = std::mt19937;
  /// A client that a late disconnect_cb finds gone.
  struct Slot {
    std::shared_mutex mutex;
    std::unique_ptr<MqttWrapper> client = std::make_unique<MqttWrapper>();
  };

  /// Rounds of a second, each with clients of its own.
  void Run(const TlsBroker* tls) {
    const char* const seconds = std::getenv("ZEB_STRESS_SECONDS");
    for (auto left = static_cast<unsigned>(std::atoi(seconds != nullptr ? seconds : "5")); left > 0; --left)
      RunRound(tls, left);
    for (const auto* count : {&starts_, &restarts_, &stops_, &handshakes_}) EXPECT_GT(*count, 0);
  }

  void RunRound(const TlsBroker* tls, unsigned seed) {
    const LogMask mask(seed % 2 == 0 ? LOG_DEBUG : LOG_WARNING);
    const auto echo = [random = Random(seed)](Connection& client, const Packet& packet) mutable {
      ScriptedBroker::Answer(client, packet);
      client.Send(packet.raw);
      if (random() % 60 == 0) client.Close(random() % 2 == 0);
    };
    ScriptedBroker broker({{MsgType::PUBLISH, echo}});
    const std::shared_ptr<Slot> slots[] = {std::make_shared<Slot>(), std::make_shared<Slot>()};
    std::vector<std::future<void>> threads;
    const int64_t end_us = util::MonotonicUs() + 1'000'000;
    for (unsigned thread = 0; thread < 8; ++thread) {
      threads.push_back(std::async(std::launch::async, [&, random = Random(seed * 8 + thread)]() mutable {
        auto option = Options(broker.port(), k_mqtt311, 1);
        if (tls != nullptr) tls->LeadHere(option);
        while (util::MonotonicUs() < end_us) Call(slots[random() % 2], option, random);
      }));
    }
    threads.clear();
    for (const auto& slot : slots) {
      const std::unique_lock<std::shared_mutex> no_callback(slot->mutex);
      slot->client.reset();
      watchdog_.Alive();
    }
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
    // A real broker ends the older connection, which is mostly the other client's.
    option.client_id = "stress";
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

  std::atomic<int> starts_{0}, restarts_{0}, stops_{0}, handshakes_{0};
  Watchdog watchdog_{"stress"};
};

TEST_F(Stress, EveryCallFromEveryThread) { Run(nullptr); }

TEST_F(Stress, EveryCallFromEveryThreadOverTls) {
  const TlsBroker broker;
  Run(&broker);
}

}  // namespace
}  // namespace zeb::test
