// Paho C, MQTTClient. With callbacks it has a thread of its own, and deliveryComplete reports at once what
// MQTTClient_waitForCompletion only finds out by polling.
#include <MQTTClient.h>

#include "benchmarks/compare/peer.h"

namespace zeb::bench {
namespace {

class PahoSync : public Peer {
 public:
  explicit PahoSync(const Target& target) : target_(target) {
    (void)::MQTTClient_create(&client_, target.Uri().c_str(), target.client_id.c_str(),
                              MQTTCLIENT_PERSISTENCE_NONE, nullptr);
    const auto arrived = [](void* self, char* topic, int, MQTTClient_message* message) {
      static_cast<PahoSync*>(self)->Arrive(static_cast<size_t>(message->payloadlen));
      ::MQTTClient_freeMessage(&message);
      ::MQTTClient_free(topic);
      return 1;
    };
    const auto delivered = [](void* self, MQTTClient_deliveryToken token) {
      static_cast<PahoSync*>(self)->confirmations_.Confirm(token);
    };
    (void)::MQTTClient_setCallbacks(client_, this, nullptr, arrived, delivered);
  }
  ~PahoSync() override { ::MQTTClient_destroy(&client_); }

  bool Connect() override {
    MQTTClient_connectOptions options = MQTTClient_connectOptions_initializer;
    MQTTClient_SSLOptions tls = MQTTClient_SSLOptions_initializer;
    tls.trustStore = target_.ca_file.c_str();
    tls.verify = 1;
    if (!target_.ca_file.empty()) options.ssl = &tls;
    options.keepAliveInterval = k_keep_alive_s;
    options.reliable = 0;  // several messages in flight
    options.maxInflightMessages = 1'000;
    return ::MQTTClient_connect(client_, &options) == MQTTCLIENT_SUCCESS;
  }
  bool Publish(const std::string& payload, int qos) override {
    MQTTClient_deliveryToken token = 0;
    return ::MQTTClient_publish(client_, k_topic, static_cast<int>(payload.size()), payload.data(), qos, 0,
                                &token) == MQTTCLIENT_SUCCESS &&
           confirmations_.Await(token);
  }
  bool Subscribe(const std::string& topic, int qos) override {
    return ::MQTTClient_subscribe(client_, topic.c_str(), qos) == MQTTCLIENT_SUCCESS;
  }
  bool Disconnect() override { return ::MQTTClient_disconnect(client_, 0) == MQTTCLIENT_SUCCESS; }

 private:
  const Target target_;
  MQTTClient client_ = nullptr;
  Confirmations confirmations_;
};

}  // namespace

std::unique_ptr<Peer> MakePahoSync(const Target& target) { return std::make_unique<PahoSync>(target); }

}  // namespace zeb::bench
