// Paho C, MQTTAsync: each call waits for its success callback.
#include <MQTTAsync.h>

#include "benchmarks/compare/peer.h"

namespace zeb::bench {
namespace {

void Succeed(void* signal, MQTTAsync_successData*) { static_cast<Signal*>(signal)->Post(); }
void Fail(void* signal, MQTTAsync_failureData*) { static_cast<Signal*>(signal)->Post(false); }

class PahoAsync : public Peer {
 public:
  explicit PahoAsync(const Target& target) : target_(target) {
    (void)::MQTTAsync_create(&client_, target.Uri().c_str(), target.client_id.c_str(),
                             MQTTCLIENT_PERSISTENCE_NONE, nullptr);
    const auto arrived = [](void* self, char* topic, int, MQTTAsync_message* message) {
      static_cast<PahoAsync*>(self)->Arrive(static_cast<size_t>(message->payloadlen));
      ::MQTTAsync_freeMessage(&message);
      ::MQTTAsync_free(topic);
      return 1;
    };
    (void)::MQTTAsync_setCallbacks(client_, this, nullptr, arrived, nullptr);
  }
  ~PahoAsync() override { ::MQTTAsync_destroy(&client_); }

  bool Connect() override {
    MQTTAsync_connectOptions options = MQTTAsync_connectOptions_initializer;
    MQTTAsync_SSLOptions tls = MQTTAsync_SSLOptions_initializer;
    tls.trustStore = target_.ca_file.c_str();
    tls.verify = 1;
    if (!target_.ca_file.empty()) options.ssl = &tls;
    options.keepAliveInterval = k_keep_alive_s;
    options.maxInflight = 1'000;
    Signal done;
    options.onSuccess = Succeed;
    options.onFailure = Fail;
    options.context = &done;
    return ::MQTTAsync_connect(client_, &options) == MQTTASYNC_SUCCESS && done.Wait();
  }
  bool Publish(const std::string& payload, int qos) override {
    Signal done;
    MQTTAsync_responseOptions options = Announce(done);
    return ::MQTTAsync_send(client_, k_topic, static_cast<int>(payload.size()), payload.data(), qos, 0,
                            &options) == MQTTASYNC_SUCCESS &&
           done.Wait();
  }
  bool Subscribe(const std::string& topic, int qos) override {
    Signal done;
    MQTTAsync_responseOptions options = Announce(done);
    return ::MQTTAsync_subscribe(client_, topic.c_str(), qos, &options) == MQTTASYNC_SUCCESS && done.Wait();
  }
  bool Disconnect() override {
    Signal done;
    MQTTAsync_disconnectOptions options = MQTTAsync_disconnectOptions_initializer;
    options.onSuccess = Succeed;
    options.onFailure = Fail;
    options.context = &done;
    options.timeout = 0;
    return ::MQTTAsync_disconnect(client_, &options) == MQTTASYNC_SUCCESS && done.Wait();
  }

 private:
  static MQTTAsync_responseOptions Announce(Signal& done) {
    MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
    options.onSuccess = Succeed;
    options.onFailure = Fail;
    options.context = &done;
    return options;
  }
  const Target target_;
  MQTTAsync client_ = nullptr;
};

}  // namespace

std::unique_ptr<Peer> MakePahoAsync(const Target& target) { return std::make_unique<PahoAsync>(target); }

}  // namespace zeb::bench
