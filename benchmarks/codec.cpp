// Measures encoding and decoding for each packet type: time, and allocations per packet. Runs over the
// fuzzers' in-memory connection. The only system call that remains is one look at the send queue for each
// packet sent. One thread.
#include <benchmark/benchmark.h>
#include <syslog.h>

#include <cstdlib>
#include <new>

#include "fuzz/harness.h"

using namespace zeb;
using mqtt::MqttWrapper;
using mqtt::SelfMqttImpl;
using Peer = mqtt::SelfMqttImplPeer;

namespace {

int64_t allocations = 0;  // of this one thread

constexpr bool k_v3 = false, k_v5 = true;
constexpr size_t k_small = 40, k_large = 100'000;  // payload bytes
const std::list<MqttWrapper::PairedString> k_pairs = {{"key", "value"}, {"unit", "kWh"}};

// ---- Decoding: the same packets from the broker, again and again.

struct Inbound {
  const char* name;
  bool mqtt5;
  std::string bytes;   // one packet or more
  size_t payload = 0;  // bytes delivered to the application
};

std::string Packet(char first_byte, const std::string& body) {
  std::string packet(1, first_byte);
  for (size_t length = body.size(), more = 1; more != 0; length >>= 7) {
    more = length > 0x7F ? 0x80 : 0;
    packet += static_cast<char>((length & 0x7F) | more);
  }
  return packet + body;
}
template <size_t N>
std::string Text(const char (&literal)[N]) {
  return std::string(literal, N - 1);  // including zeros
}
std::string Message(char first_byte, const std::string& identifier, const std::string& properties,
                    size_t size) {
  return Packet(first_byte, Text("\0\5meter") + identifier + properties + std::string(size, 'x'));
}

std::vector<Inbound> InboundPackets() {
  const std::string id = Text("\0\7");
  const std::string none = Text("\0"), pair = Text("\x0D\x26\0\3key\0\5value");  // property blocks
  const std::string why = Text("\x13\x1F\0\3why") + pair.substr(1);
  const std::string release = Packet('\x62', id);
  return {
      {"CONNACK", k_v3, Packet('\x20', Text("\0\0"))},
      {"CONNACK/5/properties", k_v5, Packet('\x20', Text("\0\0") + why)},
      {"PUBLISH/qos0/40", k_v3, Message('\x30', "", "", k_small), k_small},
      {"PUBLISH/qos0/40/5", k_v5, Message('\x30', "", none, k_small), k_small},
      {"PUBLISH/qos0/40/5/properties", k_v5, Message('\x30', "", pair, k_small), k_small},
      {"PUBLISH/qos0/100000", k_v3, Message('\x30', "", "", k_large), k_large},
      {"PUBLISH/qos1/40/answered", k_v3, Message('\x32', id, "", k_small), k_small},
      {"PUBLISH/qos1/100000/answered", k_v3, Message('\x32', id, "", k_large), k_large},
      {"PUBLISH/qos2/40/answered+PUBREL", k_v3, Message('\x34', id, "", k_small) + release, k_small},
      {"PUBACK", k_v3, Packet('\x40', id)},
      {"PUBACK/5/properties", k_v5, Packet('\x40', id + none + why)},
      {"PUBREC", k_v3, Packet('\x50', id)},
      {"PUBCOMP", k_v3, Packet('\x70', id)},
      {"SUBACK", k_v3, Packet('\x90', id + '\1')},
      {"SUBACK/5/properties", k_v5, Packet('\x90', id + why + '\1')},
      {"UNSUBACK", k_v3, Packet('\xB0', id)},
      {"PINGRESP", k_v3, Packet('\xD0', "")},
      {"DISCONNECT/5/properties", k_v5, Packet('\xE0', Text("\x8E") + why)},
  };
}

void Decode(benchmark::State& state, const Inbound& inbound) {
  size_t delivered = 0;
  const auto client =
      fuzz::NewClient(inbound.mqtt5, [&](auto& message) { delivered += message.payload.size(); });
  fuzz::wire.keeps = false;
  const auto* const bytes = reinterpret_cast<const uint8_t*>(inbound.bytes.data());
  const auto session = Peer::Current(*client);
  const auto size = static_cast<int>(inbound.bytes.size());
  const int64_t before = allocations;
  while (state.KeepRunning()) {
    if (Peer::DecodePackets(*client, *session, bytes, inbound.bytes.size()) != size)
      return state.SkipWithError("not all was decoded");
  }
  state.counters["allocations"] =
      benchmark::Counter(static_cast<double>(allocations - before), benchmark::Counter::kAvgIterations);
  if (delivered != inbound.payload * static_cast<size_t>(state.iterations()))
    state.SkipWithError("not all was delivered");
}

// ---- Encoding: a request. If it waits for an answer, the answer arrives during its send.

struct Outbound {
  const char* name;
  bool mqtt5;
  Result (*request)(SelfMqttImpl& client);
  bool last = false;  // nothing may follow it, so each run needs a new client
};

template <size_t size, int qos>
Result Publish(SelfMqttImpl& client) {
  static MqttWrapper::PublishOption option{"meter", false, qos, false, std::string(size, 'x')};
  return client.Publish(option);
}
Result Connect(SelfMqttImpl& client) {
  static MqttWrapper::ConnectOption option;
  option.client_id = "meter-7";
  return client.Connect(option, nullptr);
}
Result ConnectWithAll(SelfMqttImpl& client) {
  static MqttWrapper::ConnectOption option;
  option.protocol = 2;
  option.client_id = "meter-7";
  option.user_name = "user";
  option.password = "password";
  option.session_expiry_interval = 3'600;
  option.receive_maximum = 20;
  option.user_property = k_pairs;
  option.lwt.enable = true;
  option.lwt.msg = {"meter/state", false, 1, false, "gone"};
  return client.Connect(option, nullptr);
}
template <bool pairs>
Result Subscribe(SelfMqttImpl& client) {
  static MqttWrapper::SubscribeOption option{
      {{"meter/command", 1}}, pairs ? 1 : 0, pairs ? k_pairs : decltype(k_pairs)()};
  return client.Subscribe(option, nullptr);
}
template <bool pairs>
Result Unsubscribe(SelfMqttImpl& client) {
  static MqttWrapper::UnsubscribeOption option{{"meter/command"}, pairs ? k_pairs : decltype(k_pairs)()};
  return client.Unsubscribe(option, nullptr);
}
template <mqtt::MsgType type, bool pairs>
Result Respond(SelfMqttImpl& client) {
  static std::list<MqttWrapper::PairedString> list = pairs ? k_pairs : decltype(k_pairs)();
  return client.PublishResponse(type, 1, 0, list);
}
Result Ping(SelfMqttImpl& client) { return client.Ping(false); }
template <bool pairs>
Result Disconnect(SelfMqttImpl& client) {
  static MqttWrapper::DisconnectOption option{0, pairs ? 60 : -1, "", "",
                                              pairs ? k_pairs : decltype(k_pairs)()};
  return client.Disconnect(&option);
}

constexpr Outbound k_outbound[] = {
    {"CONNECT+CONNACK", k_v3, Connect},
    {"CONNECT/5/will,properties+CONNACK", k_v5, ConnectWithAll},
    {"PUBLISH/qos0/40", k_v3, Publish<k_small, 0>},
    {"PUBLISH/qos0/40/5", k_v5, Publish<k_small, 0>},
    {"PUBLISH/qos0/100000", k_v3, Publish<k_large, 0>},
    {"PUBLISH/qos1/40+PUBACK", k_v3, Publish<k_small, 1>},
    {"PUBLISH/qos1/100000+PUBACK", k_v3, Publish<k_large, 1>},
    {"PUBLISH/qos2/40+PUBREC+PUBREL+PUBCOMP", k_v3, Publish<k_small, 2>},
    {"PUBACK", k_v3, Respond<mqtt::MsgType::PUBACK, false>},
    {"PUBACK/5/properties", k_v5, Respond<mqtt::MsgType::PUBACK, true>},
    {"PUBREC", k_v3, Respond<mqtt::MsgType::PUBREC, false>},
    {"PUBREL+PUBCOMP", k_v3, Respond<mqtt::MsgType::PUBREL, false>},
    {"PUBCOMP", k_v3, Respond<mqtt::MsgType::PUBCOMP, false>},
    {"SUBSCRIBE+SUBACK", k_v3, Subscribe<false>},
    {"SUBSCRIBE/5/properties+SUBACK", k_v5, Subscribe<true>},
    {"UNSUBSCRIBE+UNSUBACK", k_v3, Unsubscribe<false>},
    {"UNSUBSCRIBE/5/properties+UNSUBACK", k_v5, Unsubscribe<true>},
    {"PINGREQ", k_v3, Ping},
    {"DISCONNECT", k_v3, Disconnect<false>, true},
    {"DISCONNECT/5/properties", k_v5, Disconnect<true>, true},
};

void Encode(benchmark::State& state, const Outbound& outbound) {
  int64_t counted = 0;
  std::unique_ptr<SelfMqttImpl> client;
  const auto renew = [&] {
    client = fuzz::NewClient(outbound.mqtt5);
    fuzz::wire.keeps = false;
    fuzz::wire.on_send = [&client](std::string_view packet) {  // answers with the next type; QoS 2: PUBREC
      const auto first_byte = static_cast<uint8_t>(packet[0]);
      if (first_byte >> 4 == 4 || first_byte >> 4 == 5 || (first_byte >> 4) % 7 == 0) return;
      const int type = (first_byte & 0xF0) + ((first_byte & 0xF6) == 0x34 ? 0x20 : 0x10);
      const uint8_t bytes[] = {static_cast<uint8_t>(type), 2, 0, static_cast<uint8_t>(type != 0x20), 0};
      (void)client->DecodePackets(bytes, 4);
    };
  };
  renew();
  while (state.KeepRunning()) {
    if (outbound.last) {
      state.PauseTiming();
      renew();
      state.ResumeTiming();
    }
    Peer::SetMessageId(*client, 0);
    const int64_t before = allocations;
    if (outbound.request(*client) != kSuccess) return state.SkipWithError("refused");
    counted += allocations - before;
  }
  state.counters["allocations"] =
      benchmark::Counter(static_cast<double>(counted), benchmark::Counter::kAvgIterations);
}

}  // namespace

// The other forms of new call this one. If it were inlined, the compiler would think that new and delete do
// not match.
[[gnu::noinline]] void* operator new(size_t size) {
  ++allocations;
  if (void* const block = std::malloc(size)) return block;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept { std::free(block); }

int main(int argc, char** argv) {
  ::setlogmask(LOG_UPTO(LOG_WARNING));  // as a product would do
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  const std::vector<Inbound> inbound = InboundPackets();
  for (const Inbound& each : inbound)
    benchmark::RegisterBenchmark((std::string("decode/") + each.name).c_str(), Decode, each);
  for (const Outbound& each : k_outbound)
    benchmark::RegisterBenchmark((std::string("encode/") + each.name).c_str(), Encode, each);
  return benchmark::RunSpecifiedBenchmarks() == inbound.size() + std::size(k_outbound) ? 0 : 1;
}
