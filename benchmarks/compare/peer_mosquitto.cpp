// libmosquitto with its own thread (mosquitto_loop_start) and TCP_NODELAY, which the caller has to set.
#include <mosquitto.h>

#include "benchmarks/compare/peer.h"

namespace zeb::bench {
namespace {

class Mosquitto : public Peer {
 public:
  explicit Mosquitto(const Target& target) : target_(target) {
    static const int initialised = ::mosquitto_lib_init();
    (void)initialised;
    client_ = ::mosquitto_new(target.client_id.c_str(), true, this);
    ::mosquitto_int_option(client_, MOSQ_OPT_TCP_NODELAY, 1);
    ::mosquitto_max_inflight_messages_set(client_, 0);  // no limit
    if (!target.ca_file.empty())
      ::mosquitto_tls_set(client_, target.ca_file.c_str(), nullptr, nullptr, nullptr, nullptr);
    ::mosquitto_connect_callback_set(client_, [](mosquitto*, void* self, int code) {
      static_cast<Mosquitto*>(self)->answered_.Post(code == 0);
    });
    ::mosquitto_subscribe_callback_set(client_,
                                       [](mosquitto*, void* self, int, int count, const int* granted) {
                                         auto& peer = *static_cast<Mosquitto*>(self);
                                         peer.answered_.Post(count == 1 && granted[0] == peer.asked_qos_);
                                       });
    ::mosquitto_publish_callback_set(client_, [](mosquitto*, void* self, int identifier) {
      static_cast<Mosquitto*>(self)->confirmations_.Confirm(identifier);
    });
    ::mosquitto_message_callback_set(client_, [](mosquitto*, void* self, const mosquitto_message* message) {
      static_cast<Mosquitto*>(self)->Arrive(static_cast<size_t>(message->payloadlen));
    });
  }
  ~Mosquitto() override { ::mosquitto_destroy(client_); }

  bool Connect() override {
    return ::mosquitto_connect(client_, target_.host.c_str(), target_.port, k_keep_alive_s) == 0 &&
           ::mosquitto_loop_start(client_) == 0 && answered_.Wait();
  }
  bool Publish(const std::string& payload, int qos) override {
    int identifier = 0;
    return ::mosquitto_publish(client_, &identifier, k_topic, static_cast<int>(payload.size()),
                               payload.data(), qos, false) == 0 &&
           confirmations_.Await(identifier);
  }
  bool Subscribe(const std::string& topic, int qos) override {
    asked_qos_ = qos;
    return ::mosquitto_subscribe(client_, nullptr, topic.c_str(), qos) == 0 && answered_.Wait();
  }
  bool Disconnect() override {
    return ::mosquitto_disconnect(client_) == 0 && ::mosquitto_loop_stop(client_, false) == 0;
  }

 private:
  const Target target_;
  mosquitto* client_ = nullptr;
  Signal answered_;
  std::atomic<int> asked_qos_{0};
  Confirmations confirmations_;
};

}  // namespace

std::unique_ptr<Peer> MakeMosquitto(const Target& target) { return std::make_unique<Mosquitto>(target); }

}  // namespace zeb::bench
