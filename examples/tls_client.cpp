// TLS with a client certificate: broker and client both prove who they are. Publishes one message.
#include <cstdio>
#include <cstdlib>

#include "mqtt/mqtt_wrapper.h"

int main(int argc, char** argv) {
  if (argc < 8)
    return std::fprintf(stderr, "usage: %s HOST PORT CA-FILE CERT-FILE KEY-FILE TOPIC TEXT\n", argv[0]), 2;
  zeb::mqtt::MqttWrapper client;
  zeb::mqtt::MqttWrapper::ConnectOption broker;
  broker.host = argv[1];  // the broker's certificate must be valid for this name or address
  broker.port = std::atoi(argv[2]);
  broker.client_id = "tls-client";
  broker.tls = true;
  broker.ca_file = argv[3];  // the only trusted one; if empty, the system's trust store is used
  broker.cert = argv[4];
  broker.key = argv[5];  // not encrypted: the library never asks for a password
  // A product that controls its broker can insist on TLS 1.3:
  // broker.ssl_method = zeb::util::SslWrapper::Method::kTls1_3;
  zeb::mqtt::MqttWrapper::ConnectAck answer;
  const zeb::Result started = client.StartClient(broker, &answer);
  if (started != zeb::kSuccess) {
    // The system log has the cause. A code that zeb::Result does not list comes from one of the three files.
    std::fprintf(stderr, "no connection: result %d, CONNACK code %d\n", started, answer.reason_code);
    return 1;
  }

  zeb::mqtt::MqttWrapper::PublishOption message;
  message.topic = argv[6];
  message.payload = argv[7];
  const zeb::Result sent = client.Publish(message);
  (void)client.StopClient(nullptr);  // the message is safe even if this fails
  return sent == zeb::kSuccess ? 0 : 1;
}
