// Takes a stopped client to an established session: checks, addresses, TLS, socket, receive thread, CONNECT.
// It runs on the thread that calls StartClient.
#include <algorithm>
#include <utility>
#include <vector>

#include "mqtt/client_log.h"
#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"
#include "util/scope_exit.h"

namespace zeb::mqtt {
namespace {

constexpr size_t kMaxClientId = 128;   // bytes
constexpr int32_t kMaxTimeout = 2147;  // seconds; more microseconds do not fit 32 bits
constexpr int64_t kUsPerSecond = 1'000'000;
constexpr char kStartClient[] =
    "zeb::Result zeb::mqtt::SelfMqttImpl::StartClient(zeb::mqtt::MqttWrapper::ConnectOption&, "
    "zeb::mqtt::MqttWrapper::ConnectAck*)";

using Domain = util::Socket::Domain;

}  // namespace

/// One StartClient that has claimed the client, and what it has settled on so far.
struct SelfMqttImpl::Start {
  Start(SelfMqttImpl& of_client, ConnectOption& with_option)
      : client(of_client),
        option(with_option),
        timeout_sec(std::clamp(option.timeout, -1, kMaxTimeout)),
        deadline_us(util::MonotonicUs() + timeout_sec * kUsPerSecond) {}

  /// The steps up to the receive thread.
  Result Connect();
  /// CONNECT and its CONNACK, and what becomes of the session.
  Result Exchange(ConnectAck& ack);

  SelfMqttImpl& client;
  ConnectOption& option;

 private:
  std::string Tag() const { return client.Tag(); }
  int64_t RemainingUs() const { return std::max<int64_t>(deadline_us - util::MonotonicUs(), 0); }
  bool Use(std::vector<std::string> candidates, Domain family);
  Result ChooseAddresses();
  Result ChooseResolved();
  std::string PathTo(const std::string& address) const { return address + ";" + std::to_string(option.port); }
  void LogPath(const std::string& path) const;
  Result PrepareTls();
  std::shared_ptr<util::SocketClient> OpenSocket(const std::string& path, int64_t limit_us) const;
  std::shared_ptr<util::SocketClient> ConnectToAny(std::string& path) const;
  Result OpenSession();
  void TearDown();

  const int32_t timeout_sec;
  const int64_t deadline_us;  // of name resolution, TCP and TLS together
  const int cancel_fd = client.lifecycle_.abort_fd();
  std::vector<std::string> addresses{};  // of the broker, all of the domain, the preferred one first
  Domain domain = Domain::kIpv4;
  std::shared_ptr<util::SslWrapper> ssl{};  // null without TLS
  std::shared_ptr<Session> session{};       // once the connection stands
};

Result SelfMqttImpl::StartClient(ConnectOption& option, ConnectAck* ack) {
  const Lifecycle::Call inside(lifecycle_);
  SetTag(option.client_id);
  if (option.client_id.empty() || option.client_id.size() > kMaxClientId) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Invald client_id [%s]", option.client_id.c_str());
    return kInvalidArgument;
  }
  if (!lifecycle_.BeginStart(std::clamp(option.timeout, 0, kMaxTimeout) * kUsPerSecond)) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "event_fd [%d] already created", lifecycle_.Current()->EventFd());
    return kAlreadyStarted;
  }
  util::ScopeExit give_up([this] {
    if (lifecycle_.StartAborted()) {  // the stop that waits for this finds nothing left to do
      lifecycle_.Current()->Close();
      SetTag("");
    }
    lifecycle_.EndStart();
  });
  (void)StopRecvThread();    // a stop inside message_cb has left its thread
  SetTag(option.client_id);  // a stop that was still running has cleared it
  Start start(*this, option);
  if (const Result result = start.Connect(); result != kSuccess) return result;
  give_up.Dismiss();
  ConnectAck unused;
  return start.Exchange(ack != nullptr ? *ack : unused);
}

Result SelfMqttImpl::Start::Connect() {
  client.status_ = k_idle;
  client.dis_reason_ = k_no_reason;
  {
    const std::shared_ptr<Session> before = client.lifecycle_.Current();
    const util::MutexLock lock(client.message_id_mutex_);
    before->message_id_ = 0;
  }
  if (cancel_fd < 0) CLIENT_LOG_AS(kStartClient, LOG_WARNING, "no descriptor: a stop waits for the connect");
  Result result = ChooseAddresses();
  if (result == kSuccess) result = PrepareTls();
  if (result == kSuccess) result = OpenSession();
  return result;
}

// Returns false if there is no address of the family.
bool SelfMqttImpl::Start::Use(std::vector<std::string> candidates, Domain family) {
  if (candidates.empty()) return false;
  addresses = std::move(candidates);
  domain = family;
  return true;
}

Result SelfMqttImpl::Start::ChooseAddresses() {
  const bool ipv4 = util::NetworkManager::IsValidAddress(option.host, false);
  const bool literal = ipv4 || util::NetworkManager::IsValidAddress(option.host, true);
  if (literal) {
    (void)Use({option.host}, ipv4 ? Domain::kIpv4 : Domain::kIpv6);  // one address, never none
  } else if (const Result result = ChooseResolved(); result != kSuccess) {
    return result;
  }
  if (addresses.front().empty()) return kInvalidArgument;
  LogPath(PathTo(addresses.front()));
  return kSuccess;
}

Result SelfMqttImpl::Start::ChooseResolved() {
  std::vector<std::string> ipv4;
  std::vector<std::string> ipv6;
  if (util::NetworkManager::ResolveHostName(option.host, ipv4, ipv6, RemainingUs(), cancel_fd) != 0) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot Resolv %s into ip address", option.host.c_str());
    return kInvalidArgument;
  }
  if (option.iface_name.empty()) return Use(std::move(ipv4), Domain::kIpv4) ? kSuccess : kNoAddress;
  std::string own_ipv4;
  std::string own_ipv6;
  (void)util::NetworkManager::GetIpAddress(option.iface_name, own_ipv4, false);  // empty when there is none
  (void)util::NetworkManager::GetIpAddress(option.iface_name, own_ipv6, true);
  if (own_ipv4.empty() && own_ipv6.empty()) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "There's no ip addresses for %s", option.iface_name.c_str());
    return kNoAddress;
  }
  if (!own_ipv6.empty() && Use(std::move(ipv6), Domain::kIpv6)) return kSuccess;
  if (!own_ipv4.empty() && Use(std::move(ipv4), Domain::kIpv4)) return kSuccess;
  CLIENT_LOG_AS(kStartClient, LOG_ERR, "There's no target address found for iface name %s",
                option.iface_name.c_str());
  return kNoAddress;
}

void SelfMqttImpl::Start::LogPath(const std::string& path) const {
  CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "path %s tls %d", path.c_str(), option.tls ? 1 : 0);
}

Result SelfMqttImpl::Start::PrepareTls() {
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

std::shared_ptr<util::SocketClient> SelfMqttImpl::Start::OpenSocket(const std::string& path,
                                                                    int64_t limit_us) const {
  util::SocketClient::SocketClientOption settings;
  settings.ssl = ssl;
  settings.timeout_us = static_cast<int32_t>(std::max(timeout_sec, 0) * kUsPerSecond);
  settings.tx_buf_size = client.k_max_tx_buf_;
  settings.rx_buf_size = client.k_max_rx_buf_;
  settings.host = option.host;
  settings.connect_timeout_us = static_cast<int32_t>(limit_us);  // a part of timeout_us
  settings.cancel_fd = cancel_fd;
  auto socket = std::make_shared<util::SocketClient>(option.iface_name, util::Socket::Protocol::kTcp, domain,
                                                     path, std::move(settings));
  socket->SetTCPNoDelay(true);
  return socket;
}

// Tries the addresses in order, outside every lock. Each has an equal share of the time that is left. The
// socket returned is the last that was tried, connected or not.
std::shared_ptr<util::SocketClient> SelfMqttImpl::Start::ConnectToAny(std::string& path) const {
  for (size_t i = 0;; ++i) {
    path = PathTo(addresses[i]);
    if (i > 0) LogPath(path);
    const auto left = static_cast<int64_t>(addresses.size() - i);
    auto socket = OpenSocket(path, RemainingUs() / left);
    if (socket->IsConnected() || left == 1 || RemainingUs() == 0 || client.lifecycle_.StartAborted())
      return socket;
  }
}

Result SelfMqttImpl::Start::OpenSession() {
  CLIENT_LOG_AS(kStartClient, LOG_DEBUG, "before connect mqtt client");
  std::string path;
  const std::shared_ptr<util::SocketClient> socket = ConnectToAny(path);
  std::shared_ptr<Session> before = client.lifecycle_.Current();
  std::shared_ptr<const ConnectOption> kept =
      before->option_;  // the socket of a failed connect changes nothing
  if (socket->IsConnected()) {
    const auto copy = std::make_shared<ConnectOption>(option);
    if (copy->protocol == Session::k_mqtt5) copy->maximum_packet_size = client.k_max_rx_buf_;
    kept = copy;
  }
  session = std::make_shared<Session>(std::move(kept), timeout_sec, socket, ssl);
  session->Inherit(*before);
  (void)client.lifecycle_.Install(session);
  if (socket->IsConnected()) {  // the requests of the last connection end
    before->ack_event_q_.Clear();
    if (const auto connected = before->last_connected_.lock()) connected->ack_event_q_.Clear();
  } else {
    session->last_connected_ = before->last_connected_.expired() ? before : before->last_connected_.lock();
  }
  before.reset();  // and perhaps the application's callables, which may call the client
  if (!socket->IsConnected()) {
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot connect to %s", path.c_str());
    return kInvalidArgument;
  }
  client.status_ = k_socket_connected;
  const Result result = client.StartRecvThread(session);
  if (result == kNotStarted) {  // a stop was earlier
    client.status_ = k_idle;
    CLIENT_LOG_AS(kStartClient, LOG_ERR, "Cannot connect to %s", path.c_str());
    return kInvalidArgument;
  }
  if (result != kSuccess) CLIENT_LOG_AS(kStartClient, LOG_ERR, "StartRecvThread returns %d", result);
  return result;
}

Result SelfMqttImpl::Start::Exchange(ConnectAck& ack) {
  util::ScopeExit tear_down([this] { TearDown(); });  // also when there is no memory for CONNECT
  session->ack_event_q_.Clear();                      // nothing that came unasked may answer this CONNECT
  const Result result = client.Connect(*session, option, &ack);
  if (result == kSuccess && ack.reason_code == 0 && client.lifecycle_.Confirm(*session, &client.status_)) {
    tear_down.Dismiss();
    return kSuccess;
  }
  CLIENT_LOG_AS(kStartClient, LOG_ERR, "Connect error");
  return kFailure;
}

// Stops this start's own session, unless somebody else has done so.
void SelfMqttImpl::Start::TearDown() {
  DisconnectOption plain;
  (void)client.FinishStop(client.lifecycle_.BeginStopOf(*session, session->timeout_us()), &plain);
}

}  // namespace zeb::mqtt
