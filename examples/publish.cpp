// The smallest publisher: sends one message at QoS 1 to the broker given on the command line.
#include <cstdio>
#include <cstdlib>

#include "mqtt/mqtt_wrapper.h"

int main(int argc, char** argv) {
  if (argc < 5) return std::fprintf(stderr, "usage: %s HOST PORT TOPIC TEXT\n", argv[0]), 2;
  zeb::mqtt::MqttWrapper client;
  zeb::mqtt::MqttWrapper::ConnectOption broker;
  broker.host = argv[1];
  broker.port = std::atoi(argv[2]);
  broker.client_id = "smallest-publisher";
  if (client.StartClient(broker, nullptr) != zeb::kSuccess) return 1;

  zeb::mqtt::MqttWrapper::PublishOption message;
  message.topic = argv[3];
  message.payload = argv[4];
  const zeb::Result sent = client.Publish(message);  // returns once the broker has acknowledged it
  (void)client.StopClient(nullptr);                  // the message is safe even if this fails
  return sent == zeb::kSuccess ? 0 : 1;
}
