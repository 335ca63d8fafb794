// TLS with a client certificate: the broker proves who it is, and so does this client. Publishes one message.
#include <cstdio>
#include <cstdlib>

#include "mqtt/mqtt_wrapper.h"

int main(int argc, char** argv) {
  if (argc < 8)
    return std::fprintf(stderr, "usage: %s HOST PORT CA-FILE CERT-FILE KEY-FILE TOPIC TEXT\n", argv[0]), 2;
  zeb::mqtt::MqttWrapper client;
  zeb::mqtt::MqttWrapper::ConnectOption broker;
  broker.host = argv[1];  // the broker's certificate must bear this name or address
  broker.port = std::atoi(argv[2]);
  broker.client_id = "tls-client";
  broker.tls = true;
  broker.ca_file = argv[3];  // trusted alone; left empty, the system's trust store decides
  broker.cert = argv[4];
  broker.key = argv[5];  // not encrypted: nobody is there to ask for a password
  // A product that controls its broker can insist on the newest version:
  // broker.ssl_method = zeb::util::SslWrapper::Method::kTls1_3;
  zeb::mqtt::MqttWrapper::ConnectAck answer;
  const zeb::Result started = client.StartClient(broker, &answer);
  if (started != zeb::kSuccess) {
    // The causes stand in the system log; a code that zeb::Result does not name is of a file of ours.
    std::fprintf(stderr, "no connection: result %d, CONNACK code %d\n", started, answer.reason_code);
    return 1;
  }

  zeb::mqtt::MqttWrapper::PublishOption message;
  message.topic = argv[6];
  message.payload = argv[7];
  const zeb::Result sent = client.Publish(message);
  (void)client.StopClient(nullptr);  // the message is safe whatever comes of the goodbye
  return sent == zeb::kSuccess ? 0 : 1;
}
