// A whole platform: every member that the headers declare, and nothing else, over socket pairs, each with a
// broker thread at its other end. Any thread; the mutex is held over no callback and while nothing blocks.
#include "external_platform.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>

#include <condition_variable>
#include <csignal>

#include "util/boot_clock.h"
#include "util/network_manager.h"
#include "util/psm_manager.h"
#include "util/socket.h"
#include "util/thread.h"

using namespace zeb::util;
using external::held;
using zeb::psm::PsmManager;
using Text = const std::string&;
using Texts = std::vector<std::string>;
using Lock = std::unique_lock<std::mutex>;

namespace {
std::mutex mutex;  // guards the names, the registrations and what may be sent
std::condition_variable call_ended;
// The broker of one connection, until it closes or the client has gone. A read takes one packet.
void Serve(int fd) {
  const ScopedFd end(fd);
  for (uint8_t in[300] = {}; ::recv(fd, in, sizeof in, 0) > 0;) {
    const size_t type = in[0] >> 4, id = type == 3 ? 4U + in[3] : 2;
    ++external::packets[type];
    if (type > 12 || (type == 3 && in[4] == '!')) return;
    const size_t row = type == 3 ? 13U + (in[0] >> 1 & 3) : type;  // of a PUBLISH one for each QoS
    constexpr uint8_t k_answers[] = {0, 0, 0, 0, 0, 0, 0x70, 0, 0, 0, 0xB0, 0, 0, 0, 0x40, 0x50, 0};
    std::vector<uint8_t> answer{k_answers[row], 2, in[id], in[id + 1]};
    if (type == 1) answer = {0x20, 2, 0, 0};
    if (type == 8) answer = {0x90, 3, in[2], in[3], 1, 0x32, 7, 0, 1, 't', 0, 9, 'h', 'i'};
    if (type == 12) answer = {0xD0, 0};
    if (answer[0] != 0) (void)::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
  }
}
}  // namespace

void external::LoseAddresses(const char* ip_version) {
  EventDic event(EventDic::k_address_lost);
  event.SetParam(EventDic::k_ip_version, ip_version);
  NetworkManager::RaiseEvent(event);
}

PsmManager::Backend PsmManager::GetBackend() { return Backend::kMemory; }
size_t PsmManager::HeldLocks() {
  const Lock lock(mutex);
  return held.size();
}
bool PsmManager::WakeLock(Text name) {
  const Lock lock(mutex);
  held.insert(name);
  ++external::locks;
  return true;
}
bool PsmManager::WakeUnlock(Text name) {
  const Lock lock(mutex);
  external::releases += static_cast<int>(held.erase(name));
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
  std::multiset<std::thread::id> running{};  // calls of it
  static inline std::set<std::shared_ptr<Registration>> all{};
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
  registration_ = std::make_shared<Registration>(Registration{std::move(callback)});
  const Lock lock(mutex);
  external::callbacks += Registration::all.insert(registration_).second;
}
void NetworkManager::UnsetEventCb() {
  const auto ended = std::move(registration_);
  Lock lock(mutex);
  external::callbacks -= static_cast<int>(Registration::all.erase(ended));
  if (ended == nullptr || ended->running.count(std::this_thread::get_id()) != 0) return;
  call_ended.wait(lock, [&ended] { return ended->running.empty(); });
}
void NetworkManager::RaiseEvent(EventDic& event) {
  Lock lock(mutex);
  for (const auto& target : std::set<std::shared_ptr<Registration>>(Registration::all)) {
    if (Registration::all.count(target) == 0) continue;
    const auto call = target->running.insert(std::this_thread::get_id());
    lock.unlock();
    target->callback(event);
    lock.lock();
    target->running.erase(call);
    call_ended.notify_all();
  }
}

struct SocketClient::State {
  int32_t timeout_us = 0;
  bool connected = false, refused = false;  // the first: set by the constructor alone
  Thread broker{};
};
bool Socket::SetTCPNoDelay(bool) { return fd_.valid(); }  // nothing is ever delayed
SocketClient::SocketClient(Text iface, Protocol, Domain domain, Text path, SocketClientOption option)
    : Socket(domain), state_(new State{option.timeout_us}) {
  ++external::sockets;
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0) fd_ = ScopedFd(ends[0]);
  const bool served = iface.empty() && option.ssl == nullptr && path == external::k_path;
  state_->connected =
      served && fd_.valid() && state_->broker.Start([fd = ends[1]] { Serve(fd); }) == kSuccess;
  if (state_->connected) return;
  ::close(ends[1]);
  ::syslog(LOG_ERR, "no connection to %s", path.c_str());
}
SocketClient::~SocketClient() {
  Shutdown();
  if (state_->connected) state_->broker.Join();
  --external::sockets;
}
bool SocketClient::IsConnected() const { return state_->connected; }
ssize_t SocketClient::Send(const void* data, size_t length, bool last) {
  const int64_t deadline_us = MonotonicUs() + state_->timeout_us;
  pollfd writable{GetFd(), POLLOUT, 0};
  for (int64_t left_us = state_->timeout_us + 1LL; left_us > 0; left_us = deadline_us - MonotonicUs()) {
    Lock lock(mutex);  // a packet leaves whole, or not at all
    const ssize_t sent = state_->refused ? -1 : ::send(GetFd(), data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && (state_->refused || errno != EAGAIN)) return -1;
    state_->refused = last && sent >= 0;
    if (sent >= 0) return sent;
    lock.unlock();
    (void)::poll(&writable, 1, static_cast<int>((left_us + 999) / 1000));
  }
  return -1;
}
ssize_t SocketClient::Recv(void* data, size_t length) {
  const ssize_t received = ::recv(GetFd(), data, length, MSG_DONTWAIT);
  return received < 0 && (errno == EAGAIN || errno == EINTR) ? k_nothing_now : received;
}
bool SocketClient::HasPending() const { return false; }
void SocketClient::Shutdown() {
  const Lock lock(mutex);
  state_->refused = true;
  ::shutdown(GetFd(), SHUT_RDWR);  // wakes the writer and whoever waits for the descriptor
}
