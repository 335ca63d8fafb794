// The list of all clients, and the client of this library.
#include "benchmarks/compare/peer.h"
#include "mqtt/mqtt_wrapper.h"

namespace zeb::bench {
namespace {

class Zeb : public Peer {
 public:
  explicit Zeb(const Target& target) {
    option_.host = target.host;
    option_.port = target.port;
    option_.client_id = target.client_id;
    option_.tls = !target.ca_file.empty();
    option_.ca_file = target.ca_file;
    option_.keep_alive = k_keep_alive_s;
    option_.timeout = 10;
    option_.message_cb = [this](auto& message) { Arrive(message.payload.size()); };
  }
  bool Connect() override { return client_.StartClient(option_, nullptr) == kSuccess; }
  bool Publish(const std::string& payload, int qos) override {
    mqtt::MqttWrapper::PublishOption message;
    message.topic = k_topic;
    message.payload = payload;
    message.qos = static_cast<uint8_t>(qos);
    return client_.Publish(message) == kSuccess;
  }
  bool Subscribe(const std::string& topic, int qos) override {
    mqtt::MqttWrapper::SubscribeOption option;
    option.topics[topic] = static_cast<uint8_t>(qos);
    mqtt::MqttWrapper::SubscriptionAck ack;
    return client_.Subscribe(option, &ack) == kSuccess && ack.reason_code == qos;
  }
  bool Disconnect() override { return client_.StopClient(nullptr) == kSuccess; }

 private:
  mqtt::MqttWrapper::ConnectOption option_;
  mqtt::MqttWrapper client_;
};

}  // namespace

const std::vector<Maker>& Makers() {
  static const std::vector<Maker> makers = {
      {"zeb", [](const Target& target) -> std::unique_ptr<Peer> { return std::make_unique<Zeb>(target); }},
      {"mosquitto", ZEB_BENCH_MOSQUITTO},
      {"paho-async", ZEB_BENCH_PAHO_ASYNC},
      {"paho-sync", ZEB_BENCH_PAHO_SYNC},
      {"paho-cpp", ZEB_BENCH_PAHO_CPP},
  };
  return makers;
}

}  // namespace zeb::bench
