// From a stopped client to an established session: checks, addresses, TLS, socket, receive thread, CONNECT.
// Runs on the thread that calls StartClient.
#include <algorithm>
#include <utility>
#include <vector>

#include "mqtt/client_log.h"
#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"
#include "util/scope_exit.h"

namespace zeb::mqtt {
namespace {

constexpr size_t kMaxClientId = 128;  // bytes
constexpr int64_t kUsPerSecond = 1'000'000;
constexpr const char* kStartClient =
    "zeb::Result zeb::mqtt::SelfMqttImpl::StartClient(zeb::mqtt::MqttWrapper::ConnectOption&, "
    "zeb::mqtt::MqttWrapper::ConnectAck*)";

using Domain = util::Socket::Domain;

}  // namespace

/// What one start has settled on so far.
struct SelfMqttImpl::StartPlan {
  explicit StartPlan(int32_t timeout)
      : timeout_sec(std::clamp(timeout, -1, k_max_timeout)),
        deadline_us(util::MonotonicUs() + timeout_sec * kUsPerSecond) {}
  [[nodiscard]] int64_t RemainingUs() const {
    return std::max<int64_t>(deadline_us - util::MonotonicUs(), 0);
  }
  /// False when there is none of the family.
  bool Use(std::vector<std::string> candidates, Domain family) {
    if (candidates.empty()) return false;
    addresses = std::move(candidates);
    domain = family;
    return true;
  }

  const int32_t timeout_sec;
  const int64_t deadline_us;           // of name resolution, TCP and TLS together
  int cancel_fd = -1;                  // readable once a stop has taken the start back
  std::vector<std::string> addresses;  // of the broker, all of the domain, the preferred one first
  Domain domain = Domain::kIpv4;
  std::shared_ptr<util::SslWrapper> ssl;  // null without TLS
};

Result SelfMqttImpl::StartClient(ConnectOption& option, ConnectAck* ack) {
  EnterCall();
  bool claimed = false;
  const util::ScopeExit end_start([&] { EndStart(claimed); });
  SetTag(option.client_id);
  if (option.client_id.empty() || option.client_id.size() > kMaxClientId) {
    CLIENT_LOG(LOG_ERR, "Invald client_id [%s]", option.client_id.c_str());
    return kInvalidArgument;
  }
  claimed = BeginStart(option);
  if (!claimed) {
    CLIENT_LOG(LOG_ERR, "event_fd [%d] already created", event_fd_.load());
    return kAlreadyStarted;
  }
  SetTag(option.client_id);  // a stop that was still running has cleared it
  return Establish(option, ack);
}

Result SelfMqttImpl::Establish(ConnectOption& option, ConnectAck* ack) {
  ResetSession();
  StartPlan plan(option.timeout);
  plan.cancel_fd = abort_fd_.get();  // this thread alone replaces it
  if (plan.cancel_fd < 0)
    CLIENT_LOG_AS(kStartClient, LOG_WARNING, "no descriptor: a stop waits for the connect");
  Result result = ChooseAddresses(option, plan);
  if (result == kSuccess) result = PrepareTls(option, plan);
  if (result == kSuccess) result = OpenSession(option, plan);
  if (result != kSuccess) {
    if (StartAborted()) {  // the stop that waits for this finds nothing left to do
      DestroyConnection();
      SetTag("");
    }
    return result;
  }

  ConnectAck unused;
  try {
    return ExchangeConnect(option, ack != nullptr ? *ack : unused);
  } catch (...) {  // out of memory: no thread goes on behind a start that failed
    TearDown();
    throw;
  }
}

void SelfMqttImpl::ResetSession() {
  status_ = kIdle;
  dis_reason_ = kNoReason;
  {
    const util::MutexLock lock(message_id_mutex_);
    message_id_ = 0;
  }
  ResetStamps();
}

Result SelfMqttImpl::ChooseAddresses(const ConnectOption& option, StartPlan& plan) const {
  const bool ipv4 = util::NetworkManager::IsValidAddress(option.host, false);
  const bool literal = ipv4 || util::NetworkManager::IsValidAddress(option.host, true);
  if (literal) {
    (void)plan.Use({option.host}, ipv4 ? Domain::kIpv4 : Domain::kIpv6);  // one address, never none
  } else if (const Result result = ChooseResolved(option, plan); result != kSuccess) {
    return result;
  }
  if (plan.addresses.front().empty()) return kInvalidArgument;
  LogPath(PathTo(plan.addresses.front(), option.port), option.tls);
  return kSuccess;
}

Result SelfMqttImpl::ChooseResolved(const ConnectOption& option, StartPlan& plan) const {
  std::vector<std::string> ipv4;
  std::vector<std::string> ipv6;
  if (util::NetworkManager::ResolveHostName(option.host, ipv4, ipv6, plan.RemainingUs(), plan.cancel_fd) !=
      0) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot Resolv %s into ip address", option.host.c_str());
    return kInvalidArgument;
  }
  if (option.iface_name.empty()) return plan.Use(std::move(ipv4), Domain::kIpv4) ? kSuccess : kNoAddress;
  std::string own_ipv4;
  std::string own_ipv6;
  (void)util::NetworkManager::GetIpAddress(option.iface_name, own_ipv4, false);  // empty when there is none
  (void)util::NetworkManager::GetIpAddress(option.iface_name, own_ipv6, true);
  if (own_ipv4.empty() && own_ipv6.empty()) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "There's no ip addresses for %s", option.iface_name.c_str());
    return kNoAddress;
  }
  if (!own_ipv6.empty() && plan.Use(std::move(ipv6), Domain::kIpv6)) return kSuccess;
  if (!own_ipv4.empty() && plan.Use(std::move(ipv4), Domain::kIpv4)) return kSuccess;
  CLIENT_LOG_AS(kStartClient, LOG_ERR, "There's no target address found for iface name %s",
                option.iface_name.c_str());
  return kNoAddress;
}

std::string SelfMqttImpl::PathTo(const std::string& address, int32_t port) {
  return address + ";" + std::to_string(port);
}

void SelfMqttImpl::LogPath(const std::string& path, bool tls) const {
  CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "path %s tls %d", path.c_str(), tls ? 1 : 0);
}

// The context travels with the start, not through the member: a stop that overlaps must not take it away and
// so turn the connection into a plain one.
Result SelfMqttImpl::PrepareTls(const ConnectOption& option, StartPlan& plan) const {
  if (!option.tls) return kSuccess;
  plan.ssl = std::make_shared<util::SslWrapper>(false, option.ssl_method);
  if (!option.cipher_lists.empty()) {
    (void)plan.ssl->SetCipherLists(option.cipher_lists);  // a refusal fails the connect
  }
  if (!option.ca_file.empty()) {
    CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "ca_file %s root_ca_file_type [%d]", option.ca_file.c_str(),
                  static_cast<int>(option.root_ca_file_type));
    const int32_t code = plan.ssl->SetRootCaFile(option.ca_file, option.root_ca_file_type);
    if (code != 0) {
      CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot set ca root file [%s]", option.ca_file.c_str());
      return static_cast<Result>(code);
    }
  }
  if (option.cert.empty()) return kSuccess;
  CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "cert %s key %s", option.cert.c_str(), option.key.c_str());
  return static_cast<Result>(
      plan.ssl->SetCertAndKeyFile(option.cert, option.key, option.cert_file_type, option.key_file_type));
}

std::shared_ptr<util::SocketClient> SelfMqttImpl::OpenSocket(const ConnectOption& option,
                                                             const StartPlan& plan, const std::string& path,
                                                             int64_t limit_us) const {
  util::SocketClient::SocketClientOption settings;
  settings.ssl = plan.ssl;
  settings.timeout_us = static_cast<int32_t>(std::max<int64_t>(timeout_us_, 0));
  settings.tx_buf_size = k_max_tx_buf_;
  settings.rx_buf_size = k_max_rx_buf_;
  settings.host = option.host;
  settings.connect_timeout_us = static_cast<int32_t>(limit_us);  // a part of timeout_us
  settings.cancel_fd = plan.cancel_fd;
  auto socket = std::make_shared<util::SocketClient>(option.iface_name, util::Socket::Protocol::kTcp,
                                                     plan.domain, path, std::move(settings));
  socket->SetTCPNoDelay(true);
  return socket;
}

// Tries the addresses in order, outside every lock; each has an equal share of the time that is left. The
// socket returned is the last that was tried, connected or not.
std::shared_ptr<util::SocketClient> SelfMqttImpl::ConnectToAny(const ConnectOption& option,
                                                               const StartPlan& plan, std::string& path) {
  for (size_t i = 0;; ++i) {
    path = PathTo(plan.addresses[i], option.port);
    if (i > 0) LogPath(path, option.tls);
    const auto left = static_cast<int64_t>(plan.addresses.size() - i);
    auto socket = OpenSocket(option, plan, path, plan.RemainingUs() / left);
    if (socket->IsConnected() || left == 1 || plan.RemainingUs() == 0 || StartAborted()) return socket;
  }
}

void SelfMqttImpl::ReplaceConnection(const std::shared_ptr<util::SocketClient>& socket,
                                     const std::shared_ptr<util::SslWrapper>& ssl) {
  {
    const util::MutexLock lock(send_mutex_);
    connect_state_ = ConnectState::kUnsent;
  }
  util::MutexLock lock(socket_mutex_);
  const std::shared_ptr<util::SslWrapper> earlier_ssl = std::exchange(ssl_wrapper_, ssl);
  const std::shared_ptr<util::SocketClient> earlier = std::exchange(socket_client_, socket);
  lock.Unlock();  // the earlier ones are freed without it
}

// Socket and receive thread come into being under one lock, so that a stop meets both or neither.
Result SelfMqttImpl::OpenSession(const ConnectOption& option, const StartPlan& plan) {
  timeout_sec_ = plan.timeout_sec;
  timeout_us_ = timeout_sec_ * kUsPerSecond;
  keep_alive_ = option.keep_alive;
  keep_alive_us_ = keep_alive_ * kUsPerSecond;
  CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "before connect mqtt client");
  std::string path;
  const std::shared_ptr<util::SocketClient> socket = ConnectToAny(option, plan, path);
  if (!socket->IsConnected()) {
    ReplaceConnection(socket, plan.ssl);
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot connect to %s", path.c_str());
    return kInvalidArgument;
  }
  // Before the receive thread exists: it must not reach an earlier session's callbacks, nor its requests this
  // one's acknowledgements.
  SetOptions(std::make_shared<const ConnectOption>(option));
  ack_event_q_.Clear();
  const util::MutexLock lock(thread_mutex_);
  SetTag(option.client_id);  // a stop that came in between has cleared it
  ReplaceConnection(socket, plan.ssl);
  status_ = kSocketConnected;
  if (!EnterExchange()) {
    status_ = kIdle;
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot connect to %s", path.c_str());
    return kInvalidArgument;
  }
  const Result result = StartRecvThreadLocked();
  if (result != kSuccess) CLIENT_LOG_AS(kStartClient, LOG_ERR, "StartRecvThread returns %d", result);
  return result;
}

Result SelfMqttImpl::ExchangeConnect(ConnectOption& option, ConnectAck& ack) {
  // Nothing left from an earlier session may answer this CONNECT; but the mark of a thread that has already
  // ended must not go with the rest, or the answer would be waited for in vain.
  ack_event_q_.Clear();
  if (recv_ended_) ack_event_q_.Enqueue(AckEvent());

  const Result result = Connect(option, &ack);
  LeaveStart();
  int32_t connected = kSocketConnected;
  if (result == kSuccess && ack.reason_code == 0 &&
      status_.compare_exchange_strong(connected, kSessionEstablished)) {
    return kSuccess;
  }
  CLIENT_LOG_AS(kStartClient, LOG_ERR, "Connect error");
  TearDown();
  return kFailure;
}

// A stop from elsewhere may have got in first: then there is only its end to wait for.
void SelfMqttImpl::TearDown() {
  MqttWrapper::DisconnectOption plain;
  (void)StopClient(&plain);
  (void)WaitForStop(timeout_us_);
  (void)StopRecvThread();
}

}  // namespace zeb::mqtt
