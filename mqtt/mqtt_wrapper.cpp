// The facade, which forwards to the client behind it, and the names of MQTT's codes. Any thread.
#include "mqtt/mqtt_wrapper.h"

#include <array>
#include <cstddef>
#include <utility>

#include "mqtt/self_mqtt_impl.h"

namespace zeb::mqtt {
namespace {

constexpr const char* kUnknown = "UNKNOWN";

constexpr std::array<const char*, 6> kReturnCodeNames = {
    "ACCEPTED",           "UNACCEPTABLE_PROTOCOL_VERSION", "IDENTIFIER_REJECTED",
    "SERVER_UNAVAILABLE", "BAD_USER_NAME_OR_PASSWORD",     "NOT_AUTHORIZED",
};

constexpr std::array<const char*, 16> kMsgTypeNames = {
    "RESERVED",  "CONNECT", "CONNACK",     "PUBLISH",  "PUBACK",  "PUBREC",   "PUBREL",     "PUBCOMP",
    "SUBSCRIBE", "SUBACK",  "UNSUBSCRIBE", "UNSUBACK", "PINGREQ", "PINGRESP", "DISCONNECT", "AUTH",
};

// A negative code becomes a large index and falls outside the table.
template <size_t N>
const char* NameAt(const std::array<const char*, N>& names, int code) {
  const auto index = static_cast<unsigned int>(code);
  return index < N ? names[index] : kUnknown;
}

using ReasonCode = MqttWrapper::ConnectReasonCode;

struct ReasonCodeName {
  ReasonCode code;
  const char* name;
};

constexpr ReasonCodeName kReasonCodeNames[] = {
    {ReasonCode::SUCCESS, "SUCCESS"},
    {ReasonCode::UNACCEPTABLE_PROTOCOL_VERSION, "UNACCEPTABLE_PROTOCOL_VERSION"},
    {ReasonCode::IDENTIFIER_REJECTED, "IDENTIFIER_REJECTED"},
    {ReasonCode::SERVER_UNAVAILABLE_V4, "SERVER_UNAVAILABLE_V4"},
    {ReasonCode::BAD_USER_NAME_OR_PASSWORD_V4, "BAD_USER_NAME_OR_PASSWORD_V4"},
    {ReasonCode::NOT_AUTHORIZED_V4, "NOT_AUTHORIZED_V4"},
    {ReasonCode::UNSPECIFIED_ERROR, "UNSPECIFIED_ERROR"},
    {ReasonCode::MALFORMED_PACKET, "MALFORMED_PACKET"},
    {ReasonCode::PROTOCOL_ERROR, "PROTOCOL_ERROR"},
    {ReasonCode::IMPLEMENTATION_SPECIFIC_ERROR, "IMPLEMENTATION_SPECIFIC_ERROR"},
    {ReasonCode::UNSUPPORTED_PROTOCOL_VERSION, "UNSUPPORTED_PROTOCOL_VERSION"},
    {ReasonCode::CLIENT_IDENTIFIER_NOT_VALID, "CLIENT_IDENTIFIER_NOT_VALID"},
    {ReasonCode::BAD_USER_NAME_OR_PASSWORD, "BAD_USER_NAME_OR_PASSWORD"},
    {ReasonCode::NOT_AUTHORIZED, "NOT_AUTHORIZED"},
    {ReasonCode::SERVER_UNAVAILABLE, "SERVER_UNAVAILABLE"},
    {ReasonCode::SERVER_BUSY, "SERVER_BUSY"},
    {ReasonCode::BANNED, "BANNED"},
    {ReasonCode::BAD_AUTHENTICATION_METHOD, "BAD_AUTHENTICATION_METHOD"},
    {ReasonCode::TOPIC_NAME_INVALID, "TOPIC_NAME_INVALID"},
    {ReasonCode::PACKET_TOO_LARGE, "PACKET_TOO_LARGE"},
    {ReasonCode::QUOTA_EXCEEDED, "QUOTA_EXCEEDED"},
    {ReasonCode::PAYLOAD_FORMAT_INVALID, "PAYLOAD_FORMAT_INVALID"},
    {ReasonCode::RETAIN_NOT_SUPPORTED, "RETAIN_NOT_SUPPORTED"},
    {ReasonCode::QOS_NOT_SUPPORTED, "QOS_NOT_SUPPORTED"},
    {ReasonCode::USE_ANOTHER_SERVER, "USE_ANOTHER_SERVER"},
    {ReasonCode::SERVER_MOVED, "SERVER_MOVED"},
    {ReasonCode::CONNECTION_RATE_EXCEEDED, "CONNECTION_RATE_EXCEEDED"},
};

}  // namespace

MqttWrapper::MqttWrapper() { impl_ = std::make_unique<SelfMqttImpl>(this); }

// Callbacks on the receive thread may use the facade until that thread has ended.
MqttWrapper::~MqttWrapper() {
  impl_->Shutdown();
  impl_.reset();
}

Result MqttWrapper::StartClient(ConnectOption& option, ConnectAck* ack) {
  const Lifecycle::Call inside = impl_->Enter();  // before the options are copied, which may take a while
  (void)SetConnectOption(option);                 // cannot fail
  return impl_->StartClient(option, ack);
}

Result MqttWrapper::SetConnectOption(ConnectOption& option) {
  ConnectOption stored = option;
  {
    const std::lock_guard<std::mutex> lock(option_mutex_);
    std::swap(option_, stored);
  }
  return kSuccess;  // the earlier callbacks are destroyed with `stored`, outside the lock
}

MqttWrapper::ConnectOption MqttWrapper::GetConnectOption() const {
  const std::lock_guard<std::mutex> lock(option_mutex_);
  return option_;
}

Result MqttWrapper::StopClient(DisconnectOption* option) { return impl_->StopClient(option); }

Result MqttWrapper::Publish(PublishOption& option) { return impl_->Publish(option); }

Result MqttWrapper::Subscribe(SubscribeOption& option, SubscriptionAck* ack) {
  return impl_->Subscribe(option, ack);
}

Result MqttWrapper::Unsubscribe(UnsubscribeOption& option, UnsubscriptionAck* ack) {
  return impl_->Unsubscribe(option, ack);
}

Result MqttWrapper::Ping(bool wait) { return impl_->Ping(wait); }

Result MqttWrapper::SetPubAckUserProperties(std::list<PairedString>& user_property) {
  return impl_->SetPubAckUserProperties(user_property);
}

Result MqttWrapper::SetPubRecUserProperties(std::list<PairedString>& user_property) {
  return impl_->SetPubRecUserProperties(user_property);
}

Result MqttWrapper::SetPubCompUserProperties(std::list<PairedString>& user_property) {
  return impl_->SetPubCompUserProperties(user_property);
}

MqttWrapper::StatusInfo MqttWrapper::GetStatusInfo() const { return impl_->GetStatusInfo(); }

std::string MqttWrapper::GetConnectReturnCodeInStr(ConnectReturnCode code) {
  return NameAt(kReturnCodeNames, static_cast<int>(code));
}

std::string MqttWrapper::GetConnectReturnCodeInStr(int code) {
  return GetConnectReturnCodeInStr(static_cast<ConnectReturnCode>(code));
}

std::string MqttWrapper::GetConnectReasonCodeInStr(ConnectReasonCode code) {
  for (const ReasonCodeName& entry : kReasonCodeNames) {
    if (entry.code == code) return entry.name;
  }
  return kUnknown;
}

std::string MqttWrapper::GetConnectReasonCodeInStr(int code) {
  return GetConnectReasonCodeInStr(static_cast<ConnectReasonCode>(code));
}

std::string MqttWrapper::GetMsgTypeInStr(MessageType type) {
  return NameAt(kMsgTypeNames, static_cast<int>(type));
}

std::string MqttWrapper::GetMsgTypeInStr(int type) { return GetMsgTypeInStr(static_cast<MessageType>(type)); }

}  // namespace zeb::mqtt
