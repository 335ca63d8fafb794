#include "fuzz/harness.h"

#include <sys/socket.h>

using zeb::fuzz::wire;
using Peer = zeb::mqtt::SelfMqttImplPeer;

std::unique_ptr<zeb::mqtt::SelfMqttImpl> zeb::fuzz::NewClient(bool mqtt5, Peer::MessageCallback callback) {
  using util::SocketClient;
  wire = {};
  auto client = std::make_unique<mqtt::SelfMqttImpl>(nullptr);
  Peer::SetConnected(
      *client, mqtt5 ? 2 : 1, std::move(callback),
      std::make_shared<SocketClient>("", SocketClient::Protocol::kTcp, SocketClient::Domain::kIpv4, "",
                                     SocketClient::SocketClientOption()));
  return client;
}

namespace zeb::util {

struct SocketClient::State {};
bool Socket::SetTCPNoDelay(bool) { return true; }
// The descriptor answers when it is asked how much the peer has not taken yet.
SocketClient::SocketClient(const std::string&, Protocol, Domain domain, const std::string&,
                           SocketClientOption)
    : Socket(domain) {
  fd_ = ScopedFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}
SocketClient::~SocketClient() = default;
bool SocketClient::IsConnected() const { return true; }
ssize_t SocketClient::Send(const void* data, size_t length, bool) {
  const std::string_view packet(static_cast<const char*>(data), length);
  if (wire.broken) return -1;
  if (wire.keeps) wire.sent.emplace_back(packet);
  if (wire.on_send) wire.on_send(packet);
  return static_cast<ssize_t>(length);
}
ssize_t SocketClient::Recv(void* data, size_t length) {
  if (wire.received == wire.inbound.size()) return wire.end;
  const size_t piece = wire.pieces.empty() ? length : std::min(length, wire.pieces.front());
  if (!wire.pieces.empty()) wire.pieces.pop_front();
  const size_t size = wire.inbound.copy(static_cast<char*>(data), piece, wire.received);
  wire.received += size;
  return size == 0 ? k_nothing_now : static_cast<ssize_t>(size);
}
bool SocketClient::HasPending() const {
  return wire.received < wire.inbound.size() || wire.end != k_nothing_now;
}
void SocketClient::Shutdown() {}

}  // namespace zeb::util
