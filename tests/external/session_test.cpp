// Whole sessions on the platform of this folder, one after the other on the main thread, through the public
// interface. After each the platform's books must balance. The exit code is 0 when every check held.
#include <cstdio>
#include <filesystem>
#include <future>

#include "external_platform.h"
#include "mqtt/mqtt_wrapper.h"

namespace {
using external::packets;
using zeb::mqtt::MqttWrapper;
int failures = 0;
#define CHECK(holds) (void)((holds) || std::printf("%d: line %d: not %s\n", ++failures, __LINE__, #holds) < 0)
template <typename T>
T Await(std::future<T> event, int seconds = 10) {
  return event.wait_for(std::chrono::seconds(seconds)) == std::future_status::ready ? event.get() : T();
}
struct Session {
  explicit Session(const char* host, bool stops = false) {
    MqttWrapper::ConnectOption option;
    option.host = host;
    option.port = external::k_port;
    option.message_cb = [this, stops](MqttWrapper::PublishMessage& inbound) {
      message.set_value(stops && client.StopClient(nullptr) != 0 ? "" : inbound.payload);
    };
    option.disconnect_cb = [shared = end](MqttWrapper*, int reason) { shared->set_value(reason); };
    CHECK(client.StartClient(option, nullptr) == zeb::kSuccess);
    MqttWrapper::SubscribeOption wanted{{{"t", 1}}, 0, {}};
    CHECK(client.Subscribe(wanted, nullptr) == 0 || stops);  // the acknowledgement may lose against the stop
    CHECK(Await(message.get_future()) == "hi");
  }
  zeb::Result Publish(const char* topic, int qos) {
    MqttWrapper::PublishOption outbound{topic, false, static_cast<uint8_t>(qos), false, "any"};
    return client.Publish(outbound);
  }
  std::promise<std::string> message;
  std::shared_ptr<std::promise<int>> end = std::make_shared<std::promise<int>>();  // may outlive the session
  MqttWrapper client;
};

void EveryRequest() {
  Session session(external::k_name);
  std::future<zeb::Result> sent[30];  // side by side
  for (int i = 0; i < 30; ++i) sent[i] = std::async([&session, i] { return session.Publish("t", i % 3); });
  for (auto& result : sent) CHECK(result.get() == zeb::kSuccess);
  MqttWrapper::UnsubscribeOption unwanted{{"t"}, {}};
  CHECK(session.client.Ping(true) == 0 && session.client.Unsubscribe(unwanted, nullptr) == zeb::kSuccess);
  CHECK(external::callbacks == 1 && external::sockets == 1);
  CHECK(session.client.StopClient(nullptr) == zeb::kSuccess && Await(session.end->get_future(), 0) == 0);
  CHECK(packets[3] == 30 && packets[4] == 1 && packets[6] == 10 && packets[14] == 1);
}

template <int reason>  // 0: message_cb stops the client
void Ends() {
  Session session(external::k_address, reason == 0);
  if (reason == 0) return;
  external::LoseAddresses("6");
  CHECK(session.Publish("t", 1) == zeb::kSuccess);  // for the connection is one of version 4
  if (reason == 2) external::LoseAddresses("4");
  if (reason == 1) CHECK(session.Publish("!", 1) == zeb::kFailure);
  CHECK(Await(session.end->get_future()) == reason && session.client.StopClient(nullptr) == zeb::kSuccess);
}
long Descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }
}  // namespace
int main() {
  const long descriptors = Descriptors();
  for (const auto run : {EveryRequest, Ends<0>, Ends<1>, Ends<2>}) {
    const int locks = external::locks;
    run();
    CHECK(external::locks > locks && external::locks == external::releases && external::held.empty());
    CHECK(external::callbacks == 0 && external::sockets == 0 && Descriptors() == descriptors);
  }
  return failures == 0 ? 0 : 1;
}
