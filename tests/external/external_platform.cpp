// A whole platform: every member that the headers declare, and nothing else, over a connection in memory. Any
// thread; the mutex is held over no callback and while nothing blocks.
#include "tests/external/external_platform.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <syslog.h>

#include <csignal>
#include <set>

#include "util/network_manager.h"
#include "util/psm_manager.h"
#include "util/thread.h"

using namespace zeb::util;
using external::wire;
using zeb::psm::PsmManager;
using Text = const std::string&;
using Texts = std::vector<std::string>;
using Lock = std::lock_guard<std::mutex>;

void external::Deliver(const std::string& bytes, ssize_t end) {
  const Lock lock(mutex);
  wire.inbound += bytes;
  wire.end = end;
  (void)::send(wire.far_end.get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
}

static std::set<std::string> held;
PsmManager::Backend PsmManager::GetBackend() { return Backend::kMemory; }
size_t PsmManager::HeldLocks() {
  const Lock lock(external::mutex);
  return held.size();
}
bool PsmManager::WakeLock(Text name) {
  const Lock lock(external::mutex);
  held.insert(name);
  ++external::locks;
  return true;
}
bool PsmManager::WakeUnlock(Text name) {
  const Lock lock(external::mutex);
  held.erase(name);
  return true;
}

zeb::Result Thread::Start(std::function<void()> body) {
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);  // the new thread inherits it
  try {
    thread_ = std::thread(std::move(body));
  } catch (const std::exception&) {  // leaves no thread behind
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread_.joinable() ? kSuccess : kFailure;
}

// There is no TLS: a context only says so, and a socket that is given one does not connect.
struct SslWrapper::Context {};
SslWrapper::SslWrapper(bool, Method) {}
SslWrapper::~SslWrapper() = default;
int32_t SslWrapper::SetCipherLists(const Texts&) { return 95; }
int32_t SslWrapper::SetRootCaFile(Text, FileType) { return 95; }
int32_t SslWrapper::SetCertAndKeyFile(Text, Text, FileType, FileType) { return 95; }

struct NetworkManager::Registration {
  EventCallback callback;
  static inline std::set<std::shared_ptr<Registration>> all{};
  static inline std::recursive_mutex
      calls{};  // guards them, and is held over each call, which may end its own
};
NetworkManager::NetworkManager() = default;
NetworkManager::~NetworkManager() { UnsetEventCb(); }
bool NetworkManager::IsValidAddress(Text address, bool ipv6) {
  in6_addr parsed;  // large enough for either family
  if (!ipv6) return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1;
  return ::inet_pton(AF_INET6, address.substr(0, address.find('%')).c_str(), &parsed) == 1;
}
int NetworkManager::ResolveHostName(Text name, Texts& ipv4, Texts& ipv6, int64_t, int) {
  ipv6.clear();
  ipv4.assign(name == external::k_name ? 1 : 0, external::k_address);
  return ipv4.empty() ? 1 : 0;
}
int NetworkManager::GetIpAddress(Text, std::string& address, bool) {
  address.clear();  // there is no interface
  return 1;
}
void NetworkManager::SetEventCb(EventCallback callback, int) {
  UnsetEventCb();
  const std::lock_guard<std::recursive_mutex> lock(Registration::calls);
  registration_ = std::make_shared<Registration>(Registration{std::move(callback)});
  Registration::all.insert(registration_);
}
void NetworkManager::UnsetEventCb() {
  const std::lock_guard<std::recursive_mutex> lock(Registration::calls);
  Registration::all.erase(std::move(registration_));
}
void NetworkManager::RaiseEvent(EventDic& event) {
  const std::lock_guard<std::recursive_mutex> lock(Registration::calls);
  for (const auto& each : std::set<std::shared_ptr<Registration>>(Registration::all)) each->callback(event);
}

struct SocketClient::State {
  bool connected = false, refused = false;  // the first: set by the constructor alone
};
bool Socket::SetTCPNoDelay(bool) { return fd_.valid(); }  // nothing is ever delayed
SocketClient::SocketClient(Text iface, Protocol, Domain domain, Text path, SocketClientOption option)
    : Socket(domain), state_(new State) {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) fd_ = ScopedFd(ends[0]);
  const Lock lock(external::mutex);
  wire.far_end = ScopedFd(ends[1]);
  wire.sent.clear();
  wire.inbound.clear();
  wire.received = 0;
  wire.end = k_nothing_now;
  state_->connected = iface.empty() && option.ssl == nullptr && path == external::k_path && fd_.valid();
  if (!state_->connected) ::syslog(LOG_ERR, "no connection to %s", path.c_str());
}
SocketClient::~SocketClient() { Shutdown(); }
bool SocketClient::IsConnected() const { return state_->connected; }
ssize_t SocketClient::Send(const void* data, size_t length, bool last) {
  const std::string_view packet(static_cast<const char*>(data), length);
  {
    const Lock lock(external::mutex);
    if (state_->refused || wire.broken) return -1;
    state_->refused = last;
    if (wire.keeps) wire.sent.emplace_back(packet);
  }
  if (wire.on_send) wire.on_send(packet);
  return static_cast<ssize_t>(length);
}
ssize_t SocketClient::Recv(void* data, size_t length) {
  char wakes[64];
  (void)!::recv(GetFd(), wakes, sizeof wakes, MSG_DONTWAIT);
  const Lock lock(external::mutex);
  if (wire.received == wire.inbound.size()) return wire.end;
  const size_t piece = wire.pieces.empty() ? length : std::min(length, wire.pieces.front());
  if (!wire.pieces.empty()) wire.pieces.pop_front();
  const size_t size = wire.inbound.copy(static_cast<char*>(data), piece, wire.received);
  wire.received += size;
  return size == 0 ? k_nothing_now : static_cast<ssize_t>(size);
}
bool SocketClient::HasPending() const {
  const Lock lock(external::mutex);
  return wire.received < wire.inbound.size() || wire.end != k_nothing_now;
}
void SocketClient::Shutdown() {
  const Lock lock(external::mutex);
  state_->refused = true;
  ::shutdown(GetFd(), SHUT_RDWR);  // wakes whoever waits for the descriptor
}
