// The smallest subscriber: prints every message of a topic filter until Enter is pressed or the connection
// ends.
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "mqtt/mqtt_wrapper.h"

int main(int argc, char** argv) {
  if (argc < 4) return std::fprintf(stderr, "usage: %s HOST PORT FILTER\n", argv[0]), 2;
  zeb::mqtt::MqttWrapper client;
  zeb::mqtt::MqttWrapper::ConnectOption broker;
  broker.host = argv[1];
  broker.port = std::atoi(argv[2]);
  broker.client_id = "smallest-subscriber";
  // Runs on the client's own thread: return quickly, and hand longer work to a thread of yours.
  broker.message_cb = [](zeb::mqtt::MqttWrapper::PublishMessage& message) {
    std::printf("%s: %s\n", message.topic.c_str(), message.payload.c_str());
    std::fflush(stdout);
  };
  if (client.StartClient(broker, nullptr) != zeb::kSuccess) return 1;

  zeb::mqtt::MqttWrapper::SubscribeOption wanted;
  wanted.topics[argv[3]] = 1;  // deliver at QoS 1 at most
  zeb::mqtt::MqttWrapper::SubscriptionAck granted;
  // The result says only that the broker has answered. The acknowledgement holds its decision.
  if (client.Subscribe(wanted, &granted) != zeb::kSuccess || granted.reason_code > 2) return 1;

  constexpr int k_established = 2;
  pollfd enter{STDIN_FILENO, POLLIN, 0};
  while (client.GetStatusInfo().status == k_established && ::poll(&enter, 1, 500) == 0) {
  }
  const bool connected = client.GetStatusInfo().status == k_established;
  (void)client.StopClient(nullptr);
  return connected ? 0 : 1;
}
