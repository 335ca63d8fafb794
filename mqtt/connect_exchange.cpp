// Builds CONNECT from the application's options and waits for its CONNACK. It runs on the thread that starts
// the client, while the receive thread already takes the answer.
#include "mqtt/client_log.h"
#include "mqtt/request.h"

namespace zeb::mqtt {
namespace {

constexpr uint8_t kLevelMqtt311 = 4;  // Protocol Level (MQTT 3.1.1, 3.1.2.2)
constexpr uint8_t kLevelMqtt5 = 5;
constexpr const char* kConnect =
    "zeb::Result zeb::mqtt::SelfMqttImpl::Connect(zeb::mqtt::MqttWrapper::ConnectOption&, "
    "zeb::mqtt::MqttWrapper::ConnectAck*)";

// Connect Flags (MQTT 5.0, 3.1.2.3).
constexpr uint8_t kUserNameFlag = 0x80;
constexpr uint8_t kPasswordFlag = 0x40;
constexpr uint8_t kWillRetainFlag = 0x20;
constexpr int kWillQosShift = 3;
constexpr uint8_t kWillFlag = 0x04;
constexpr uint8_t kCleanSessionFlag = 0x02;

uint8_t ConnectFlags(const MqttWrapper::ConnectOption& option) {
  unsigned int flags = 0;
  if (!option.user_name.empty()) flags |= kUserNameFlag;
  if (!option.password.empty()) flags |= kPasswordFlag;
  if (option.clean_session) flags |= kCleanSessionFlag;
  if (option.lwt.enable) {
    flags |= kWillFlag | (option.lwt.msg.qos & 3U) << kWillQosShift;
    if (option.lwt.msg.retain) flags |= kWillRetainFlag;
  }
  return static_cast<uint8_t>(flags);
}

uint16_t Low16(int32_t value) { return static_cast<uint16_t>(value & 0xFFFF); }

// These properties are sent when they are set: numbers from 0 on, and texts that are not empty.
void Append32(PacketWriter& body, int64_t value, PropertyId id) {
  if (value >= 0) Codec::AppendProperty(body, static_cast<uint32_t>(value & 0xFFFFFFFF), id);
}
void Append16(PacketWriter& body, int32_t value, PropertyId id) {
  if (value >= 0) Codec::AppendProperty(body, Low16(value), id);
}
void AppendFlag(PacketWriter& body, int8_t value, PropertyId id) {
  if (value >= 0) Codec::AppendProperty(body, value != 0, id);
}
void AppendText(PacketWriter& body, std::string& value, PropertyId id) {
  if (!value.empty()) Codec::AppendProperty(body, value, id);
}

}  // namespace

Result SelfMqttImpl::Connect(ConnectOption& option, ConnectAck* ack) {
  return Connect(*lifecycle_.Current(), option, ack);
}

Result SelfMqttImpl::Connect(Session& session, ConnectOption& option, ConnectAck* ack) {
  {
    const util::MutexLock lock(session.send_mutex_);
    session.disconnect_called_ = false;
  }
  const bool mqtt5 = option.protocol == Session::k_mqtt5;
  if (mqtt5) option.maximum_packet_size = k_max_rx_buf_;  // what the receive buffer holds
  broker_reason_code_ = 0;
  if (!mqtt5 && option.protocol != Session::k_mqtt311) {
    CLIENT_LOG_AS(kConnect, LOG_ERR, "Unsupported mqtt protocol [%d]", option.protocol);
    return kInvalidArgument;
  }
  if (tx_buf_ == nullptr) return kFailure;

  Request request{*this, session, MsgType::CONNECT, -1, ack};
  util::MutexLock body_lock(message_id_mutex_);
  PacketWriter body(tx_buf_.get(), static_cast<size_t>(k_max_tx_buf_));
  const uint8_t flags = ConnectFlags(option);
  body.AppendString("MQTT");
  body.AppendByte(mqtt5 ? kLevelMqtt5 : kLevelMqtt311);
  body.AppendByte(flags);
  body.AppendUint16(Low16(option.keep_alive));
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "protocol [%d]", option.protocol);
  if (mqtt5) AppendConnectProperties(body, option);
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "id [%s]", option.client_id.c_str());
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "user_name: %s", option.user_name.c_str());
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "password: %s", option.password.c_str());
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "lwt.enable %d flags 0x%x", option.lwt.enable ? 1 : 0, flags);
  body.AppendString(option.client_id);
  if (option.lwt.enable) AppendWill(body, option.lwt, mqtt5);
  if (!option.user_name.empty()) body.AppendString(option.user_name);
  if (!option.password.empty()) body.AppendString(option.password);
  if (!BodyFits("CONNECT", body)) return kInvalidArgument;
  return request.Send(body.begin(), body.end(), &body_lock);
}

void SelfMqttImpl::AppendConnectProperties(PacketWriter& body, ConnectOption& option) {
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "CONNECT PROPERTIES");
  CLIENT_LOG_AS(kConnect, LOG_DEBUG,
                "session_expiry_interval [%jd] receive_maximum [%d] maximum_packet_size [%jd] "
                "topic_alias_maximum [%d] request_response_information [%d] request_problem_information [%d]",
                static_cast<intmax_t>(option.session_expiry_interval), option.receive_maximum,
                static_cast<intmax_t>(option.maximum_packet_size), option.topic_alias_maximum,
                option.request_response_information, option.request_problem_information);
  LogUserProperties(kConnect, option.user_property);
  const size_t block = body.BeginBlock();
  Append32(body, option.session_expiry_interval, PropertyId::kSessionExpiryInterval);
  Append16(body, option.receive_maximum, PropertyId::kReceiveMaximum);
  Append32(body, option.maximum_packet_size, PropertyId::kMaximumPacketSize);
  Append16(body, option.topic_alias_maximum, PropertyId::kTopicAliasMaximum);
  AppendFlag(body, option.request_response_information, PropertyId::kRequestResponseInformation);
  AppendFlag(body, option.request_problem_information, PropertyId::kRequestProblemInformation);
  AppendUserProperties(kConnect, body, option.user_property);
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "property_length [%u]",
                static_cast<unsigned int>(body.BlockLength(block)));
  body.EndBlock(block);
}

void SelfMqttImpl::AppendWill(PacketWriter& body, MqttWrapper::LastWill& will, bool mqtt5) {
  if (mqtt5) AppendWillProperties(body, will.properties);
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "lwt topic [%s] msg [%s]", will.msg.topic.c_str(),
                will.msg.payload.c_str());
  body.AppendString(will.msg.topic);
  body.AppendBinary(will.msg.payload);
}

void SelfMqttImpl::AppendWillProperties(PacketWriter& body, MqttWrapper::WillProperties& properties) {
  CLIENT_LOG_AS(kConnect, LOG_DEBUG,
                "lwt will_delay_interval [%jd] payload_format_indicator [%d] message_expiry_interval [%jd] "
                "content_type [%s] response_topic [%s]",
                static_cast<intmax_t>(properties.will_delay_interval), properties.payload_format_indicator,
                static_cast<intmax_t>(properties.message_expiry_interval), properties.content_type.c_str(),
                properties.response_topic.c_str());
  const size_t block = body.BeginBlock();
  Append32(body, properties.will_delay_interval, PropertyId::kWillDelayInterval);
  AppendFlag(body, properties.payload_format_indicator, PropertyId::kPayloadFormatIndicator);
  Append32(body, properties.message_expiry_interval, PropertyId::kMessageExpiryInterval);
  AppendText(body, properties.content_type, PropertyId::kContentType);
  AppendText(body, properties.response_topic, PropertyId::kResponseTopic);
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "correlation_data length [%zu]", properties.correlation_data.length());
  CLIENT_LOG_AS(kConnect, LOG_DEBUG, "property_length [%u]",
                static_cast<unsigned int>(body.BlockLength(block)));
  body.EndBlock(block);
}

}  // namespace zeb::mqtt
