// DISCONNECT, the stop sequence, and the network's loss. Disconnect and StopClient run on application
// threads, StopClient also inside message_cb; EventCb runs on the platform's network thread.
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"
#include "util/scope_exit.h"

namespace zeb::mqtt {
namespace {

constexpr char kDisconnect[] =
    "zeb::Result zeb::mqtt::SelfMqttImpl::Disconnect(zeb::mqtt::MqttWrapper::DisconnectOption*)";

}  // namespace

Result SelfMqttImpl::Disconnect(MqttWrapper::DisconnectOption* option) {
  if (status_ != kSessionEstablished) {
    CLIENT_LOG(LOG_DEBUG, "Client is not connected to broker");
    return kSuccess;
  }
  if (tx_buf_ == nullptr) return kFailure;
  util::MutexLock body_lock(tx_mutex_);
  PacketWriter body(tx_buf_.get(), static_cast<size_t>(k_max_tx_buf_));
  if (option != nullptr && IsMqtt5()) BuildDisconnect(body, *option);
  const Result result = BodyFits("DISCONNECT", body)
                            ? SendAndWait(body.end(), body.begin(), MsgType::DISCONNECT, false, 0, false, -1,
                                          nullptr, &body_lock)
                            : kInvalidArgument;
  if (result != kSuccess) {
    CLIENT_LOG(LOG_ERR, "DISCONNECTED send failed");
    return result;
  }
  status_ = kDisconnected;
  return kSuccess;
}

// Normal disconnection without properties is what an empty body means (MQTT 5.0, 3.14.2.1).
void SelfMqttImpl::BuildDisconnect(PacketWriter& body, MqttWrapper::DisconnectOption& option) {
  CLIENT_LOG_AS(kDisconnect, LOG_DEBUG, "DISCONNECT reason code is %d", option.reason_code);
  const PacketWriter empty = body;
  body.AppendByte(static_cast<uint8_t>(option.reason_code & 0xFF));
  const size_t block = body.BeginBlock();
  CLIENT_LOG_AS(kDisconnect, LOG_DEBUG, "DISCONNECT PROPERTIES");
  if (option.session_expiry_interval >= 0) {
    AppendProperty(body, static_cast<uint32_t>(option.session_expiry_interval & 0xFFFFFFFF),
                   PropertyId::kSessionExpiryInterval);
    CLIENT_LOG_AS(kDisconnect, LOG_DEBUG, "session_expiry_interval %d",
                  static_cast<int>(option.session_expiry_interval));
  }
  if (!option.server_reference.empty()) {
    AppendProperty(body, option.server_reference, PropertyId::kServerReference);
    CLIENT_LOG_AS(kDisconnect, LOG_DEBUG, "server_reference %s", option.server_reference.c_str());
  }
  if (!option.reason_string.empty()) {
    AppendProperty(body, option.reason_string, PropertyId::kReasonString);
    CLIENT_LOG_AS(kDisconnect, LOG_DEBUG, "reason_string %s", option.reason_string.c_str());
  }
  LogUserProperties(kDisconnect, option.user_property);
  AppendUserProperties(kDisconnect, body, option.user_property);
  const size_t length = body.BlockLength(block);
  CLIENT_LOG_AS(kDisconnect, LOG_DEBUG, "property_length %d", static_cast<int>(length));
  if (length == 0 && option.reason_code == 0) {
    body = empty;
  } else {
    body.EndBlock(block);
  }
}

Result SelfMqttImpl::StopClient(MqttWrapper::DisconnectOption* option) {
  EnterCall();
  const util::ScopeExit leave([this] { LeaveCall(); });
  AbortStart();
  const std::shared_ptr<util::SocketClient> socket = SharedSocket();
  if (socket == nullptr || socket->GetFd() <= 0) {
    CLIENT_LOG(LOG_DEBUG, "Client is already stopped");
    return kSuccess;
  }
  if (!BeginStop()) {
    CLIENT_LOG(LOG_DEBUG, "Ignore StopClient as already stopping");
    return kSuccess;
  }
  util::ScopeExit end_stop([this] { EndStop(); });
  if (status_ == kSessionEstablished) {
    CLIENT_LOG(LOG_DEBUG, "Before call StopClient");
    if (Disconnect(option) != kSuccess) {
      CLIENT_LOG(LOG_ERR, "Cannot Send DISCONNECT message to broker");
    } else {
      CLIENT_LOG(LOG_DEBUG, "Success to Send DISCONNECT message to broker");
    }
  }
  if (OnReceiveThread()) {
    // The thread cannot wait for its own end: it finishes the stop once message_cb has returned.
    self_stopped_ = true;
    stop_requested_ = true;
    keep_thread_ = false;
    end_stop.Dismiss();
    return kSuccess;
  }
  // A start stores its socket and creates its thread under the same lock: a stop takes down both, or neither.
  const util::MutexLock lock(thread_mutex_);
  const Result result = StopRecvThreadLocked();
  DestroyConnection();
  SetTag("");
  EndStop();  // before a start can enter its session: the next stop must not take this one for its own
  end_stop.Dismiss();
  return result;
}

bool SelfMqttImpl::BeginStop() {
  const util::MutexLock lock(stop_mutex_);
  if (stop_calling_) return false;
  stop_calling_ = true;
  return true;
}

void SelfMqttImpl::EndStop() {
  const util::MutexLock lock(stop_mutex_);
  stop_calling_ = false;
  stop_cond_.Broadcast();
}

bool SelfMqttImpl::WaitForStop(int64_t timeout_us) {
  const int64_t deadline_us = util::MonotonicUs() + timeout_us;
  const util::MutexLock lock(stop_mutex_);
  while (stop_calling_) {
    if (timeout_us < 0) {
      stop_cond_.Wait(stop_mutex_);
      continue;
    }
    const int64_t left_us = deadline_us - util::MonotonicUs();
    if (left_us <= 0) return false;
    (void)stop_cond_.WaitUntil(stop_mutex_, left_us);  // the loop looks again either way
  }
  return true;
}

// Other threads may still hold the socket: shutting it down makes their sends return, and the last one frees
// it.
void SelfMqttImpl::DestroyConnection() {
  util::MutexLock lock(socket_mutex_);
  const std::shared_ptr<util::SslWrapper> ssl = std::move(ssl_wrapper_);
  const std::shared_ptr<util::SocketClient> socket = std::move(socket_client_);
  ssl_wrapper_.reset();
  socket_client_.reset();
  lock.Unlock();
  if (socket != nullptr) socket->Shutdown();
}

void SelfMqttImpl::EventCb(util::EventDic& event) {
  if (event.type() != util::EventDic::k_address_lost) return;
  const int event_fd = event_fd_;
  CLIENT_LOG(LOG_DEBUG, "event_fd_ [%d]", event_fd);
  if (event_fd < 0) return;
  const std::string ip_version = event.GetParam(util::EventDic::k_ip_version);
  CLIENT_LOG(LOG_DEBUG, "ip_version [%s]", ip_version.c_str());
  const std::shared_ptr<util::SocketClient> socket = SharedSocket();
  if (socket == nullptr) return;
  const bool lost = (ip_version == "4" && socket->GetDomain() == util::Socket::Domain::kIpv4) ||
                    (ip_version == "6" && socket->GetDomain() == util::Socket::Domain::kIpv6);
  if (!lost) return;
  CLIENT_LOG(LOG_DEBUG, "Before write diconnect event");
  network_lost_ = true;
  WriteControl("evt_disc");
}

}  // namespace zeb::mqtt
