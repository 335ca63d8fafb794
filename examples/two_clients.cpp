// The library's main job from start to stop: two clients exchange QoS 0, 1 and 2 messages through a broker,
// first with MQTT 3.1.1, then with 5.0. Prints each step and exits with 0 if every message arrived.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>

#include "mqtt/mqtt_wrapper.h"

namespace {

using zeb::mqtt::MqttWrapper;

constexpr const char* kTopic = "demo/room";
constexpr auto kPatience = std::chrono::seconds(10);

// What the listener has received. Its receive thread adds, the main thread waits.
class Inbox {
 public:
  void Add(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    texts_.insert(text);
    arrived_.notify_all();
  }

  bool Await(const std::string& text) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, kPatience, [&] { return texts_.count(text) != 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::set<std::string> texts_;
};

bool Step(const char* who, const char* what, bool ok) {
  std::printf("  %-9s %-46s %s\n", who, what, ok ? "ok" : "FAILED");
  return ok;
}

bool Start(MqttWrapper& client, const char* name, MqttWrapper::ConnectOption option) {
  option.client_id = name;
  MqttWrapper::ConnectAck ack;
  const bool started = client.StartClient(option, &ack) == zeb::kSuccess;
  char what[96];
  std::snprintf(what, sizeof what, "start: CONNACK %s, status %d",
                MqttWrapper::GetConnectReasonCodeInStr(static_cast<int>(ack.reason_code)).c_str(),
                client.GetStatusInfo().status);
  return Step(name, what, started);
}

bool Exchange(MqttWrapper& speaker, Inbox& inbox, const char* version, uint8_t qos) {
  MqttWrapper::PublishOption message;
  message.topic = kTopic;
  message.qos = qos;
  message.payload = std::string("hello at QoS ") + std::to_string(qos) + " in MQTT " + version;
  const std::string what = "publish \"" + message.payload + "\"";
  if (!Step("speaker", what.c_str(), speaker.Publish(message) == zeb::kSuccess)) return false;
  return Step("listener", "...has received it", inbox.Await(message.payload));
}

bool Session(MqttWrapper::ConnectOption option, const char* version) {
  std::printf("MQTT %s\n", version);
  Inbox inbox;
  MqttWrapper listener;
  MqttWrapper speaker;
  if (!Start(speaker, "speaker", option)) return false;
  option.message_cb = [&inbox](MqttWrapper::PublishMessage& message) {
    std::printf("  %-9s message on %s: \"%s\"\n", "listener", message.topic.c_str(), message.payload.c_str());
    inbox.Add(message.payload);
  };
  if (!Start(listener, "listener", option)) return false;

  MqttWrapper::SubscribeOption wanted;
  wanted.topics[kTopic] = 2;
  MqttWrapper::SubscriptionAck granted;
  bool ok = Step("listener", "subscribe to demo/room at QoS 2",
                 listener.Subscribe(wanted, &granted) == zeb::kSuccess && granted.reason_code == 2);
  for (uint8_t qos = 0; qos <= 2; ++qos) ok = ok && Exchange(speaker, inbox, version, qos);
  ok = ok && Step("speaker", "ping and wait for the answer", speaker.Ping(true) == zeb::kSuccess);
  MqttWrapper::UnsubscribeOption unwanted;
  unwanted.topics = {kTopic};
  ok = ok && Step("listener", "unsubscribe", listener.Unsubscribe(unwanted, nullptr) == zeb::kSuccess);
  for (auto* client : {&listener, &speaker}) {
    const bool stopped = client->StopClient(nullptr) == zeb::kSuccess && client->GetStatusInfo().status == 3;
    ok = Step(client == &listener ? "listener" : "speaker", "stop: DISCONNECT sent, status 3", stopped) && ok;
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  MqttWrapper::ConnectOption option;
  option.host = argv[1];
  option.port = std::atoi(argv[2]);
  option.protocol = 1;
  bool ok = Session(option, "3.1.1");
  option.protocol = 2;
  ok = Session(option, "5.0") && ok;
  std::printf("%s\n", ok ? "Every message arrived." : "Something failed; the system log tells why.");
  return ok ? 0 : 1;
}
