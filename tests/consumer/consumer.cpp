// The smallest use of the library: succeeds when it can be compiled, linked, loaded and called.
#include "mqtt/mqtt_wrapper.h"

int main() {
  zeb::mqtt::MqttWrapper client;
  zeb::mqtt::MqttWrapper::ConnectOption option = client.GetConnectOption();
  return client.SetConnectOption(option) == zeb::kSuccess ? 0 : 1;
}
