#include "fuzz/harness.h"

#include <cstdarg>

using zeb::util::Socket;
using Peer = zeb::mqtt::SelfMqttImplPeer;

std::unique_ptr<zeb::mqtt::SelfMqttImpl> zeb::fuzz::NewClient(bool mqtt5, Peer::MessageCallback callback) {
  wire = {};
  auto client = std::make_unique<mqtt::SelfMqttImpl>(nullptr);
  Peer::SetConnected(
      *client, mqtt5 ? 2 : 1, std::move(callback),
      std::make_shared<util::SocketClient>("", Socket::Protocol::kTcp, Socket::Domain::kIpv4,
                                           external::k_path, util::SocketClient::SocketClientOption()));
  return client;
}

// Formats each line, so that its arguments are read, and forgets it.
extern "C" __attribute__((format(printf, 2, 3))) void syslog(int /*priority*/, const char* format, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
}
