// Paho C++, the asynchronous client: each call waits for its token.
#include <mqtt/async_client.h>

#include "benchmarks/compare/peer.h"

namespace zeb::bench {
namespace {

class PahoCpp : public Peer {
 public:
  explicit PahoCpp(const Target& target) : target_(target), client_(target.Uri(), target.client_id) {
    client_.set_message_callback(
        [this](const ::mqtt::const_message_ptr& message) { Arrive(message->get_payload_ref().size()); });
  }

  bool Connect() override {
    ::mqtt::connect_options options;
    options.set_keep_alive_interval(k_keep_alive_s);
    options.set_max_inflight(1'000);
    if (!target_.ca_file.empty()) {
      ::mqtt::ssl_options tls;
      tls.set_trust_store(target_.ca_file);
      tls.set_verify(true);
      options.set_ssl(tls);
    }
    return Done([&] { return client_.connect(options); });
  }
  bool Publish(const std::string& payload, int qos) override {
    return Done([&] { return client_.publish(k_topic, payload.data(), payload.size(), qos, false); });
  }
  bool Subscribe(const std::string& topic, int qos) override {
    return Done([&] { return client_.subscribe(topic, qos); });
  }
  bool Disconnect() override {
    return Done([&] { return client_.disconnect(); });
  }

 private:
  template <typename Ask>
  static bool Done(Ask ask) {
    try {
      return ask()->wait_for(std::chrono::seconds(k_wait_s));  // throws if the broker refused
    } catch (const ::mqtt::exception&) {
      return false;
    }
  }
  const Target target_;
  ::mqtt::async_client client_;
};

}  // namespace

std::unique_ptr<Peer> MakePahoCpp(const Target& target) { return std::make_unique<PahoCpp>(target); }

}  // namespace zeb::bench
