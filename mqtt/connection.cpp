// From a stopped client to an established session: checks, address, TLS, socket, receive thread, CONNECT.
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

// The names' first address of the given family, if there is one.
bool TakeFirst(const std::vector<std::string>& addresses, Domain family, std::string& address,
               Domain& domain) {
  if (addresses.empty()) return false;
  address = addresses.front();
  domain = family;
  return true;
}

}  // namespace

Result SelfMqttImpl::StartClient(ConnectOption& option, ConnectAck* ack) {
  SetTag(option.client_id);
  if (option.client_id.empty() || option.client_id.size() > kMaxClientId) {
    CLIENT_LOG(LOG_ERR, "Invald client_id [%s]", option.client_id.c_str());
    return kInvalidArgument;
  }
  if (!BeginStart(option)) {
    CLIENT_LOG(LOG_ERR, "event_fd [%d] already created", event_fd_.load());
    return kAlreadyStarted;
  }
  const util::ScopeExit end_start([this] { EndStart(); });
  SetTag(option.client_id);  // a stop that was still running has cleared it
  return Establish(option, ack);
}

// Claims the start. A stop that is still running is waited for, so that it cannot take the new session down,
// and so is a start whose outcome is decided; on the receive thread they could only be waited for in vain.
bool SelfMqttImpl::BeginStart(const ConnectOption& option) {
  if (OnReceiveThread()) return false;
  const int64_t patience_us = std::clamp(option.timeout, 0, k_max_timeout) * kUsPerSecond;
  if (!ClaimStart(util::MonotonicUs() + patience_us)) return false;
  const bool stopped = WaitForStop(patience_us);
  if (stopped && self_stopped_) (void)StopRecvThread();  // reaps the thread that message_cb stopped
  if (stopped && event_fd_ <= 0) {
    const util::MutexLock lock(stop_mutex_);
    starting_ = StartState::kRunning;  // the earlier session's thread may have taken it for its own start
    return true;
  }
  EndStart();
  return false;
}

bool SelfMqttImpl::ClaimStart(int64_t deadline_us) {
  const util::MutexLock lock(stop_mutex_);
  ++start_waiters_;
  int64_t left_us = deadline_us - util::MonotonicUs();
  while (starting_ == StartState::kLeaving && !closing_ && left_us > 0) {
    (void)stop_cond_.WaitUntil(stop_mutex_, left_us);  // the loop looks again either way
    left_us = deadline_us - util::MonotonicUs();
  }
  --start_waiters_;
  if (closing_) stop_cond_.Broadcast();
  if (starting_ != StartState::kNone || closing_) return false;
  starting_ = StartState::kRunning;
  return true;
}

// The running start's outcome is decided; without one there is nothing to tell.
void SelfMqttImpl::LeaveStart() {
  const util::MutexLock lock(stop_mutex_);
  if (starting_ == StartState::kRunning) starting_ = StartState::kLeaving;
}

// For the destructor: no further start begins, and those under way have left.
void SelfMqttImpl::WaitForStart() {
  const util::MutexLock lock(stop_mutex_);
  closing_ = true;
  stop_cond_.Broadcast();
  while (starting_ != StartState::kNone || start_waiters_ > 0) stop_cond_.Wait(stop_mutex_);
}

void SelfMqttImpl::EndStart() {
  const util::MutexLock lock(stop_mutex_);
  starting_ = StartState::kNone;
  stop_cond_.Broadcast();
}

Result SelfMqttImpl::Establish(ConnectOption& option, ConnectAck* ack) {
  ResetSession();
  std::string address;
  Domain domain = Domain::kIpv4;
  if (const Result result = ChooseAddress(option, address, domain); result != kSuccess) return result;
  if (address.empty()) return kInvalidArgument;
  const std::string path = address + ";" + std::to_string(option.port);
  CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "path %s tls %d", path.c_str(), option.tls ? 1 : 0);
  std::shared_ptr<util::SslWrapper> ssl;
  if (const Result result = PrepareTls(option, ssl); result != kSuccess) return result;

  timeout_sec_ = std::clamp(option.timeout, -1, k_max_timeout);
  timeout_us_ = timeout_sec_ * kUsPerSecond;
  keep_alive_ = option.keep_alive;
  keep_alive_us_ = keep_alive_ * kUsPerSecond;
  CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "before connect mqtt client");
  if (const Result result = OpenSession(option, path, domain, ssl); result != kSuccess) return result;

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

Result SelfMqttImpl::ChooseAddress(const ConnectOption& option, std::string& address, Domain& domain) const {
  for (const Domain family : {Domain::kIpv4, Domain::kIpv6}) {
    if (!util::NetworkManager::IsValidAddress(option.host, family == Domain::kIpv6)) continue;
    address = option.host;
    domain = family;
    return kSuccess;
  }
  return ChooseResolved(option, address, domain);
}

Result SelfMqttImpl::ChooseResolved(const ConnectOption& option, std::string& address, Domain& domain) const {
  std::vector<std::string> ipv4;
  std::vector<std::string> ipv6;
  if (util::NetworkManager::ResolveHostName(option.host, ipv4, ipv6) != 0) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot Resolv %s into ip address", option.host.c_str());
    return kInvalidArgument;
  }
  if (option.iface_name.empty()) {
    return TakeFirst(ipv4, Domain::kIpv4, address, domain) ? kSuccess : kNoAddress;
  }
  std::string own_ipv4;
  std::string own_ipv6;
  (void)util::NetworkManager::GetIpAddress(option.iface_name, own_ipv4, false);  // empty when there is none
  (void)util::NetworkManager::GetIpAddress(option.iface_name, own_ipv6, true);
  if (own_ipv4.empty() && own_ipv6.empty()) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "There's no ip addresses for %s", option.iface_name.c_str());
    return kNoAddress;
  }
  if (!own_ipv6.empty() && TakeFirst(ipv6, Domain::kIpv6, address, domain)) return kSuccess;
  if (!own_ipv4.empty() && TakeFirst(ipv4, Domain::kIpv4, address, domain)) return kSuccess;
  CLIENT_LOG_AS(kStartClient, LOG_ERR, "There's no target address found for iface name %s",
                option.iface_name.c_str());
  return kNoAddress;
}

// The context travels with the start, not through the member: a stop that overlaps must not take it away and
// so turn the connection into a plain one.
Result SelfMqttImpl::PrepareTls(const ConnectOption& option, std::shared_ptr<util::SslWrapper>& ssl) const {
  if (!option.tls) return kSuccess;
  ssl = std::make_shared<util::SslWrapper>(false, option.ssl_method);
  if (!option.cipher_lists.empty()) {
    (void)ssl->SetCipherLists(option.cipher_lists);  // a refusal fails the connect
  }
  if (!option.ca_file.empty()) {
    CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "ca_file %s root_ca_file_type [%d]", option.ca_file.c_str(),
                  static_cast<int>(option.root_ca_file_type));
    const int32_t code = ssl->SetRootCaFile(option.ca_file, option.root_ca_file_type);
    if (code != 0) {
      CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot set ca root file [%s]", option.ca_file.c_str());
      return static_cast<Result>(code);
    }
  }
  if (option.cert.empty()) return kSuccess;
  CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "cert %s key %s", option.cert.c_str(), option.key.c_str());
  return static_cast<Result>(
      ssl->SetCertAndKeyFile(option.cert, option.key, option.cert_file_type, option.key_file_type));
}

// Connecting may take the whole time-out, so it is done before any lock is taken.
std::shared_ptr<util::SocketClient> SelfMqttImpl::OpenSocket(
    const ConnectOption& option, const std::string& path, Domain domain,
    const std::shared_ptr<util::SslWrapper>& ssl) const {
  util::SocketClient::SocketClientOption settings;
  settings.ssl = ssl;
  settings.timeout_us = static_cast<int32_t>(std::max<int64_t>(timeout_us_, 0));
  settings.tx_buf_size = k_max_tx_buf_;
  settings.rx_buf_size = k_max_rx_buf_;
  settings.host = option.host;
  auto socket = std::make_shared<util::SocketClient>(option.iface_name, util::Socket::Protocol::kTcp, domain,
                                                     path, std::move(settings));
  socket->SetTCPNoDelay(true);
  return socket;
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
Result SelfMqttImpl::OpenSession(const ConnectOption& option, const std::string& path, Domain domain,
                                 const std::shared_ptr<util::SslWrapper>& ssl) {
  const std::shared_ptr<util::SocketClient> socket = OpenSocket(option, path, domain, ssl);
  if (!socket->IsConnected()) {
    ReplaceConnection(socket, ssl);
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot connect to %s", path.c_str());
    return kInvalidArgument;
  }
  // Before the receive thread exists: it must not reach an earlier session's callbacks, nor its requests this
  // one's acknowledgements.
  SetOptions(std::make_shared<const ConnectOption>(option));
  ack_event_q_.Clear();
  const util::MutexLock lock(thread_mutex_);
  SetTag(option.client_id);  // a stop that came in between has cleared it
  ReplaceConnection(socket, ssl);
  status_ = kSocketConnected;
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
