// A broker that does everything wrong, and clients that come out of it unharmed: every call ends near its
// time-out, no callback comes when it must not, each client can be started again, nothing is left behind.
#include <malloc.h>

#include <random>

#include "tests/session/session.h"
#include "tests/support/watchdog.h"

namespace zeb::test {
namespace {

using Random = std::minstd_rand;
size_t Any(Random& random, size_t end) { return random() / 8 % end; }

/// Answers rightly, wrongly, too often, too late or not at all.
struct HostileBroker {
  explicit HostileBroker(Random seeded) : random(seeded) {
    std::map<MsgType, Handler> handlers;
    for (int type = 0; type < 16; ++type)
      handlers[static_cast<MsgType>(type)] = [this](auto& client, auto& packet) { Act(client, packet); };
    broker = std::make_unique<ScriptedBroker>(handlers);
  }
  static std::string Framed(size_t first, const std::string& body) {
    std::string packet(1, static_cast<char>(first));
    size_t left = body.size();
    for (; left > 0x7F; left >>= 7) packet += static_cast<char>(left | 0x80);
    return packet + static_cast<char>(left) + body;
  }
  static std::string Ack(size_t type, const std::string& id) {  // with what MQTT 5.0 may have behind it
    return Framed(type << 4, type == 13 ? "" : id + std::string(2, '\0'));
  }
  std::string AnyId() {  // mostly one that a request may be waiting for
    const size_t id = Any(random, Any(random, 4) == 0 ? 65'536 : 12);
    return {static_cast<char>(id >> 8), static_cast<char>(id)};
  }
  std::string AnyPublish() {
    return Framed(0x30 | Any(random, 3) << 1, Bytes("000161") + AnyId() + Bytes("0078"));
  }
  std::string Oversized() {
    constexpr size_t k_sizes[] = {131'071, 131'072, 131'073, 131'074, 200'000, 16'777'217};
    return Framed(0x30, std::string(k_sizes[Any(random, Any(random, 4) == 0 ? 6 : 5)] - 4, '\0'));
  }
  std::string AnyLie() {  // about the length of its properties
    constexpr const char* k_begins[] = {"0000", "000161", "000100", "0001", "00"};
    constexpr const char* k_lies[] = {"7f", "ffffff7f", "ffffffffff", "031f0005", "0426000161", "020bff"};
    return Framed(Any(random, 16) << 4, Bytes(k_begins[Any(random, 5)]) + Bytes(k_lies[Any(random, 6)]));
  }

  void Act(Connection& client, const Packet& packet) {
    const bool first = packet.raw.empty() || packet.type() == MsgType::CONNECT;  // mostly it may come so far
    const bool calm = Any(random, 16) < (first ? 14 : calmness);
    if (calm) return packet.raw.empty() ? void() : ScriptedBroker::Answer(client, packet);
    constexpr size_t k_answers[] = {2, 2, 0, 4, 0, 6, 7, 0, 9, 0, 11, 0, 13, 0, 0, 0};  // to each type
    Misbehave(client, k_answers[static_cast<size_t>(packet.type())] + (packet.qos() > 1 ? 1 : 0),
              packet.id());
  }

  void Misbehave(Connection& client, size_t type, const std::string& id) {
    const std::string answer = Ack(type, id);
    const auto flood = [&](size_t most, const std::function<std::string()>& make) {
      std::string all;
      for (size_t count = Any(random, most); count > 0; --count) all += make();
      client.Send(all + answer);
    };
    const auto trickle = [&](int ms, size_t count, const std::function<std::string()>& make) {
      for (; count > 0 && client.Pause(ms); --count) client.Send(make());
    };
    const std::string slow = answer + AnyPublish() + answer + AnyLie();
    const std::function<void()> deeds[] = {
        [] {},
        [&] { client.Send(answer + answer); },
        [&] { client.Send(Ack(type, AnyId())); },
        [&] { (void)client.Pause(static_cast<int>(Any(random, 1'400))), client.Send(answer); },
        [&] { flood(1'000, [&] { return Ack(2 + Any(random, 12), AnyId()); }); },
        [&] { flood(400, [&] { return Ack(type, AnyId()); }); },
        [&] { flood(400, [&] { return Ack(6, AnyId()); }); },
        [&] { flood(400, [&] { return AnyPublish(); }); },
        [&] { flood(20, [&] { return AnyLie(); }); },
        [&] { flood(2'000, [&] { return std::string(1, static_cast<char>(random())); }); },
        [&] { flood(3, [&] { return Oversized(); }); },
        [&] { client.Send(Oversized().substr(0, Any(random, 200'000))), client.Close(); },
        [&] { client.Send(answer.substr(0, Any(random, 4))), client.Close(Any(random, 2) == 0); },
        [&] { client.StopReading(); },
        [&] { client.Send(Ack(2, "") + answer); },
        [&] { client.Send(Bytes(Any(random, 2) == 0 ? "e000" : "e00187") + answer); },
        [&] { client.Send(Bytes("e0028700")), client.Close(); },
        [&] { trickle(0, slow.size(), [&, i = 0U]() mutable { return slow.substr(i++, 1); }); },
        [&] { trickle(300, 60, [&] { return Ack(type, "\xFF\xFF"); }); },  // for longer than any call
    };
    deeds[Any(random, std::size(deeds))]();
    if (Any(random, 2) == 0) deeds[Any(random, std::size(deeds))]();
  }

  Random random;                               // the broker's thread alone
  const size_t calmness = 5 + Any(random, 9);  // sixteenths of its answers that are right
  std::unique_ptr<ScriptedBroker> broker;      // ends first
};

/// One client with the hostile broker, then with a good one.
struct Scenario {
  void Run() {
    const HostileBroker hostile(Random{random()});
    std::atomic<bool> answered{false};
    const auto close = [](Connection& peer, const Packet&) { peer.Close(); };
    const auto answer = [&](Connection& peer, const Packet& packet) {
      peer.Send(HostileBroker::Ack(4, "zz"));
      answered = peer.Pause(50);
      ScriptedBroker::Answer(peer, packet);
    };
    const ScriptedBroker good({{MsgType::PUBLISH, answer}, {MsgType::SUBSCRIBE, close}});
    auto option = Options(hostile.broker->port(), Any(random, 2) == 0 ? k_mqtt311 : k_mqtt5, 1);
    option.keep_alive = Any(random, 8) == 0 ? 1 : 0;
    const auto over = Watch(option);
    (void)Timed([&] { return client->StartClient(option, nullptr); });
    std::vector<std::future<void>> threads;
    for (size_t left = 1 + Any(random, 2); left > 0; --left)
      threads.push_back(std::async(std::launch::async, &Scenario::Request, this, Random(random())));
    if (Any(random, 4) == 0) (void)Timed([&] { return client->StopClient(nullptr); });
    threads.clear();  // waits for them
    const auto queued = Peer::QueuedEvents(*client);
    const auto published = [](const auto& event) { return event.type == MsgType::PUBLISH; };
    EXPECT_LE(queued.size(), 256U) << name;
    EXPECT_LE(std::count_if(queued.begin(), queued.end(), published), 64) << name;
    if (Any(random, 4) == 0) {
      (void)Timed([&] { return client.reset(), kSuccess; });
      client = std::make_unique<SelfMqttImpl>(nullptr);
    }
    (void)Timed([&] { return client->StopClient(nullptr); });
    *over |= 1;
    option.port = good.port();
    option.timeout = 20;
    (void)Watch(option);
    auto message = Message("a", "back", 1);
    EXPECT_EQ(Timed([&] { return client->StartClient(option, nullptr); }), kSuccess) << name;
    EXPECT_EQ(Timed([&] { return client->Publish(message); }), kSuccess) << name;
    EXPECT_TRUE(answered) << name;
    EXPECT_EQ(Timed([&] { return client->Subscribe(subscribe, nullptr); }), kFailure) << name;  // at once
    EXPECT_EQ(Timed([&] { return client->StopClient(nullptr); }), kSuccess) << name;
  }
  /// After what is returned has become 1, or 2 in disconnect_cb, nothing may be delivered.
  std::shared_ptr<std::atomic<int>> Watch(MqttWrapper::ConnectOption& option) {
    auto over = std::make_shared<std::atomic<int>>(0);
    option.message_cb = [=, self = client.get(), patience = Any(random, 80),
                         count = size_t{0}](auto&) mutable {
      EXPECT_EQ(*over, 0) << "message_cb, " << name;
      if (++count == patience) (void)self->StopClient(nullptr);
    };
    option.disconnect_cb = [over, name = name](auto*, int reason) {
      EXPECT_FALSE((over->fetch_or(2) & 2) != 0 || reason < 1 || reason > 3) << "disconnect_cb, " << name;
    };
    return over;
  }
  // Up to 12 s: a handshake writes and drains for a time-out each and waits for two; a ping waits behind two.
  Result Timed(const std::function<Result()>& call) {
    Result result = kSuccess;
    EXPECT_LT(Seconds([&] { result = call(); }), 16) << name;
    watchdog.Alive();
    return result;
  }
  void Request(Random own) {
    auto message = Message("a", std::string(Any(own, 4) == 0 ? 100'000 : 2, 'x'), Any(own, 3) & 3);
    const size_t kind = Any(own, 6);
    (void)Timed([&] {
      if (kind == 1) return client->Subscribe(subscribe, nullptr);
      return kind == 0 ? client->Ping(Any(own, 2) == 0) : client->Publish(message);
    });
    if (Any(own, 3) != 0) Request(own);
  }

  const std::string name;
  Random random;
  Watchdog watchdog{name};
  MqttWrapper::SubscribeOption subscribe{{{"a", 2}}, 0, {}};
  std::unique_ptr<SelfMqttImpl> client = std::make_unique<SelfMqttImpl>(nullptr);
};

void RunScenarios(int first, int end) {
  std::atomic<int> next{first};
  std::vector<std::future<void>> runners;
  for (int i = 0; i < 40; ++i) {
    runners.push_back(std::async(std::launch::async, [&] {
      for (int number = next++; number < end; number = next++)
        Scenario{"ZEB_HOSTILE_SCENARIO=" + std::to_string(number),
                 Random{static_cast<unsigned>(number * 7'919 + 1)}}
            .Run();
    }));
  }
}

/// Descriptors, threads, bytes allocated.
std::vector<size_t> Footprint() {
  const auto memory = ::mallinfo2();
  return {Entries("/proc/self/fd"), Entries("/proc/self/task"), memory.uordblks + memory.hblkhd};
}

class HostileBatch : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(From, HostileBatch, testing::Range(0, 1'000, 250));

TEST_P(HostileBatch, LeavesEveryClientInOrder) {
  const char* const seed = std::getenv("ZEB_HOSTILE_SEED");       // times a thousand: where to begin
  const char* const alone = std::getenv("ZEB_HOSTILE_SCENARIO");  // the one to run
  if (alone != nullptr) return RunScenarios(std::atoi(alone), std::atoi(alone) + 1);
  const LogMask mask(GetParam() % 500 == 0 ? LOG_DEBUG : LOG_WARNING);
  const int first = GetParam() + (seed != nullptr ? 1'000 * std::atoi(seed) : 0);
  RunScenarios(first, first + 50);
  auto most = Footprint();
  most[2] += 1'000'000;
  RunScenarios(first + 50, first + 250);
  EXPECT_TRUE(Eventually([&] {
    const auto now = Footprint();
    return now[0] <= most[0] && now[1] <= most[1] && now[2] <= most[2];
  })) << testing::PrintToString(Footprint())
      << testing::PrintToString(most);
}

}  // namespace
}  // namespace zeb::test
