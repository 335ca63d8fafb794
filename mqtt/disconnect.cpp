// DISCONNECT, the stop sequence, and the loss of the network. Disconnect and StopClient run on application
// threads, and StopClient inside message_cb, too. EventCb runs on the platform's network thread.
#include <new>

#include "mqtt/client_log.h"
#include "mqtt/request.h"

namespace zeb::mqtt {
namespace {

constexpr char kDisconnect[] =
    "zeb::Result zeb::mqtt::SelfMqttImpl::Disconnect(zeb::mqtt::MqttWrapper::DisconnectOption*)";
constexpr char kStopClient[] =
    "zeb::Result zeb::mqtt::SelfMqttImpl::StopClient(zeb::mqtt::MqttWrapper::DisconnectOption*)";

}  // namespace

Result SelfMqttImpl::Disconnect(DisconnectOption* option) {
  return Disconnect(*lifecycle_.Current(), option);
}

Result SelfMqttImpl::Disconnect(Session& session, DisconnectOption* option) {
  if (status_ != k_session_established) {
    CLIENT_LOG_AS(kDisconnect, LOG_DEBUG, "Client is not connected to broker");
    return kSuccess;
  }
  if (tx_buf_ == nullptr) return kFailure;
  Request request{*this, session, MsgType::DISCONNECT};
  util::MutexLock body_lock(message_id_mutex_);
  PacketWriter body(tx_buf_.get(), static_cast<size_t>(k_max_tx_buf_));
  if (option != nullptr && session.mqtt5()) BuildDisconnect(body, *option);
  const Result result =
      BodyFits("DISCONNECT", body) ? request.Send(body.begin(), body.end(), &body_lock) : kInvalidArgument;
  if (result != kSuccess) {
    CLIENT_LOG_AS(kDisconnect, LOG_ERR, "DISCONNECTED send failed");
    return result;
  }
  status_ = k_disconnected;
  return kSuccess;
}

// An empty body means normal disconnection without properties (MQTT 5.0, 3.14.2.1).
void SelfMqttImpl::BuildDisconnect(PacketWriter& body, DisconnectOption& option) {
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

Result SelfMqttImpl::StopClient(DisconnectOption* option) {
  const Lifecycle::Call inside(lifecycle_);
  return FinishStop(lifecycle_.BeginStop(), option);
}

// Does what BeginStop or BeginStopOf has left to its caller.
Result SelfMqttImpl::FinishStop(Lifecycle::Stop stop, DisconnectOption* option) {
  const std::shared_ptr<Session> session = lifecycle_.Current();  // the owner's stays the current one
  const auto socket = session->Socket();
  if (stop == Lifecycle::Stop::kOwner && (socket == nullptr || socket->GetFd() <= 0)) {
    lifecycle_.EndStop();
    stop = Lifecycle::Stop::kNothing;
  }
  if (stop == Lifecycle::Stop::kNothing || stop == Lifecycle::Stop::kMarked)
    CLIENT_LOG_AS(kStopClient, LOG_DEBUG, "Client is already stopped");
  if (stop == Lifecycle::Stop::kIgnored)
    CLIENT_LOG_AS(kStopClient, LOG_DEBUG, "Ignore StopClient as already stopping");
  if (stop != Lifecycle::Stop::kOwner) return kSuccess;

  if (status_ == k_session_established) SayGoodbye(*session, option);
  if (lifecycle_.OnReceiveThread()) {
    // The thread cannot wait for its own end. It finishes the stop once message_cb has returned.
    session->stopped_inside_ = true;
    session->asked_ |= Session::k_stop;
    session->keep_thread_ = false;
    return kSuccess;
  }
  const Result result = StopRecvThread(*session);
  session->Close();
  SetTag("");
  lifecycle_.EndStop();
  return result;
}

// The stop goes on if DISCONNECT cannot be sent, even if there is no memory for it.
void SelfMqttImpl::SayGoodbye(Session& session, DisconnectOption* option) {
  CLIENT_LOG_AS(kStopClient, LOG_DEBUG, "Before call StopClient");
  Result result = kFailure;
  try {
    result = Disconnect(session, option);
  } catch (const std::bad_alloc&) {
    CLIENT_LOG_AS(kStopClient, LOG_ERR, "no memory for DISCONNECT");
  }
  if (result != kSuccess) {
    CLIENT_LOG_AS(kStopClient, LOG_ERR, "Cannot Send DISCONNECT message to broker");
  } else {
    CLIENT_LOG_AS(kStopClient, LOG_DEBUG, "Success to Send DISCONNECT message to broker");
  }
}

void SelfMqttImpl::EventCb(util::EventDic& event) {
  if (event.type() != util::EventDic::k_address_lost) return;
  const std::shared_ptr<Session> session = lifecycle_.Current();
  const int event_fd = session->EventFd();
  CLIENT_LOG(LOG_DEBUG, "event_fd_ [%d]", event_fd);
  if (event_fd < 0) return;
  const std::string ip_version = event.GetParam(util::EventDic::k_ip_version);
  CLIENT_LOG(LOG_DEBUG, "ip_version [%s]", ip_version.c_str());
  const std::shared_ptr<util::SocketClient> socket = session->Socket();
  if (socket == nullptr) return;
  const bool lost = (ip_version == "4" && socket->GetDomain() == util::Socket::Domain::kIpv4) ||
                    (ip_version == "6" && socket->GetDomain() == util::Socket::Domain::kIpv6);
  if (!lost) return;
  CLIENT_LOG(LOG_DEBUG, "Before write diconnect event");
  session->Ask(Session::k_network_lost);
}

}  // namespace zeb::mqtt
