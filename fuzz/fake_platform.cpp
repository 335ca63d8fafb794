// All that the platform's headers declare, without threads, network and waits; and a syslog that formats each
// line, so that its arguments are read, and forgets it.
#include <sys/socket.h>

#include <cstdarg>

#include "fuzz/harness.h"
#include "util/psm_manager.h"

using namespace zeb::util;
using zeb::fuzz::wire;
using zeb::psm::PsmManager;
using Text = const std::string&;
using Texts = std::vector<std::string>;
using Peer = zeb::mqtt::SelfMqttImplPeer;

std::unique_ptr<zeb::mqtt::SelfMqttImpl> zeb::fuzz::NewClient(bool mqtt5, Peer::MessageCallback callback) {
  wire = Wire();
  auto client = std::make_unique<mqtt::SelfMqttImpl>(nullptr);
  const SocketClient::SocketClientOption none;
  Peer::SetConnected(*client, mqtt5 ? 2 : 1, std::move(callback),
                     std::make_shared<SocketClient>("", Socket::Protocol{}, Socket::Domain::kIpv4, "", none));
  return client;
}

bool PsmManager::WakeLock(Text) { return true; }
bool PsmManager::WakeUnlock(Text) { return true; }
zeb::Result Thread::Start(std::function<void()>) { return kFailure; }
struct SslWrapper::Context {};
SslWrapper::SslWrapper(bool, Method) {}
SslWrapper::~SslWrapper() = default;
int32_t SslWrapper::SetCipherLists(const Texts&) { return 95; }
int32_t SslWrapper::SetRootCaFile(Text, FileType) { return 95; }
int32_t SslWrapper::SetCertAndKeyFile(Text, Text, FileType, FileType) { return 95; }
NetworkManager::NetworkManager() = default;
NetworkManager::~NetworkManager() = default;
bool NetworkManager::IsValidAddress(Text, bool) { return false; }
int NetworkManager::ResolveHostName(Text, Texts&, Texts&, int64_t, int) { return 1; }
int NetworkManager::GetIpAddress(Text, std::string&, bool) { return 1; }
void NetworkManager::SetEventCb(EventCallback, int) {}
void NetworkManager::UnsetEventCb() {}

struct SocketClient::State {};
SocketClient::SocketClient(Text, Protocol, Domain domain, Text, SocketClientOption) : Socket(domain) {
  fd_ = ScopedFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));  // nothing is ever unsent on it
}
SocketClient::~SocketClient() = default;
bool Socket::SetTCPNoDelay(bool) { return true; }
bool SocketClient::IsConnected() const { return true; }
bool SocketClient::HasPending() const { return false; }
void SocketClient::Shutdown() {}
ssize_t SocketClient::Send(const void* data, size_t length, bool) {
  if (wire.broken) return -1;
  if (wire.keeps) wire.sent.emplace_back(static_cast<const char*>(data), length);
  if (wire.answer) wire.answer(*static_cast<const uint8_t*>(data));
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

extern "C" __attribute__((format(printf, 2, 3))) void syslog(int /*priority*/, const char* format, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
}
