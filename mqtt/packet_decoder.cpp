// Decodes inbound packets: reports acknowledgements, answers the broker's QoS handshakes, delivers messages.
// Runs on the receive thread only.
#include <exception>
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/codec/packet_reader.h"
#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"

namespace zeb::mqtt {
namespace {

// Every line of the decoder bears the entry operation's name, whichever helper writes it.
constexpr char kDecodePacket[] = "int zeb::mqtt::SelfMqttImpl::DecodePacket(uint8_t*, size_t)";

constexpr size_t kMinPacket = 2;  // bytes: type and a remaining length of 0
constexpr int kNoCode = -1;

}  // namespace

// The packet's fields can be read within its own bytes alone, whatever lengths it declares.
struct SelfMqttImpl::InboundPacket {
  InboundPacket(const uint8_t* begin, size_t header_bytes, int body_bytes)
      : body(begin + header_bytes, static_cast<size_t>(body_bytes)),
        header_length(header_bytes),
        remaining_length(body_bytes),
        used(header_bytes + static_cast<size_t>(body_bytes)),
        type(static_cast<MsgType>(begin[0] >> 4)),
        qos(begin[0] >> 1 & 3U) {}

  // Fields that must be there. One that the packet is too short for keeps its default; the position check
  // reports it.
  bool ReadByte(uint8_t* value) { return body.ReadByte(value) || Missing(sizeof *value); }
  bool ReadUint16(uint16_t* value) { return body.ReadUint16(value) || Missing(sizeof *value); }
  bool Missing(size_t length) {
    overrun += length;
    return false;
  }

  // Decodes a property block and moves behind it, at most to the packet's end.
  void ReadProperties(Properties& properties) {
    const auto declared =
        static_cast<size_t>(DecodeProperties(body.position(), body.remaining(), type, properties));
    overrun += declared > body.remaining() ? declared - body.remaining() : 0;
    body.Skip(declared);
  }

  // Warns when the fields do not add up to the remaining length.
  void CheckPosition() const {
    if (body.empty() && overrun == 0) return;
    // Past the packet there is nothing to point to: the line shows a number.
    const auto position = reinterpret_cast<uintptr_t>(body.position()) + overrun;
    ZEB_LOG_AS(kDecodePacket, LOG_WARNING, "Target pointer is [%p] but current pointer is [%p]\n",
               static_cast<const void*>(body.position() + body.remaining()),
               reinterpret_cast<const void*>(position));  // NOLINT(performance-no-int-to-ptr)
  }

  // The caller resumes where decoding stopped, not at the packet's end.
  void StopHere() { used = header_length + body.offset(); }

  PacketReader body;
  size_t header_length;
  int remaining_length;
  size_t used;  // bytes to report as used up
  MsgType type;
  unsigned int qos;
  size_t overrun = 0;  // bytes that fields and declared blocks take beyond where `body` stands
};

int SelfMqttImpl::DecodePackets(const uint8_t* buf, size_t len) {
  auto left = static_cast<ssize_t>(len);
  if (left <= 0) return 0;
  int offset = 0;
  // After a stop nothing more is decoded: the session is over.
  while (left > 0 && !stop_requested_) {
    const int used = DecodePacket(buf + offset, static_cast<size_t>(left));
    if (used <= 0) break;
    left -= used;
    offset += used;
  }
  return offset;
}

int SelfMqttImpl::DecodePacket(const uint8_t* buf, size_t len) {
  if (buf == nullptr) return -1;
  if (len < kMinPacket) return 0;
  const FixedHeader header = DecodeFixedHeader(buf, len);
  if (!header.CompleteWithin(len)) {
    CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "p [%p] remain_len [%d] b [%p] l [%zd]\n",
                  static_cast<const void*>(buf + header.size), header.remaining_length,
                  static_cast<const void*>(buf), static_cast<ssize_t>(len));
    return 0;
  }
  InboundPacket packet(buf, header.size, header.remaining_length);
  CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "%s remain_len %d qos %u\n",
                MqttWrapper::GetMsgTypeInStr(packet.type).c_str(), packet.remaining_length, packet.qos);
  if (packet.type == MsgType::RESERVED) {
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "Serious parsing error\n");
    return 0;
  }
  AckEvent event;
  event.type = packet.type;
  if (DecodeByType(packet, event)) ack_event_q_.Enqueue(std::move(event));
  return static_cast<int>(packet.used);
}

// Whether the event is to be reported.
bool SelfMqttImpl::DecodeByType(InboundPacket& packet, AckEvent& event) {
  switch (packet.type) {
    case MsgType::CONNACK:
      return DecodeConnack(packet, event);
    case MsgType::PUBLISH:
      DecodePublish(packet);
      return true;
    case MsgType::PUBACK:
    case MsgType::PUBREC:
    case MsgType::PUBCOMP:
      DecodePubAck(packet, event);
      packet.CheckPosition();
      return true;
    case MsgType::PUBREL:
      return DecodePubRel(packet, event);
    case MsgType::SUBACK:
    case MsgType::UNSUBACK:
      return DecodeSubAck(packet, event);
    case MsgType::PINGRESP:
      return DecodePingResp(packet);
    case MsgType::DISCONNECT:
      return IsMqtt5() ? DecodeDisconnect(packet) : true;
    default:
      return true;  // nothing that a client is sent: reported by its type alone
  }
}

bool SelfMqttImpl::DecodeConnack(InboundPacket& packet, AckEvent& event) const {
  const auto option = Options();
  uint8_t flags = 0;
  uint8_t code = 0;
  event.records = std::make_unique<AckRecords>();
  ConnectAck& ack = event.records->connect_ack;
  if (packet.ReadByte(&flags) && packet.ReadByte(&code)) {
    ack.session_present = (flags & 1) != 0;
    ack.reason_code = code;
    CLIENT_LOG_AS(
        kDecodePacket, LOG_DEBUG,
        "connect_acknowledge_flags 0x%x return_code %d[%s] session_present [%d] clean_session [%d]\n", flags,
        code, MqttWrapper::GetConnectReturnCodeInStr(static_cast<int>(code)).c_str(), flags & 1,
        option->clean_session ? 1 : 0);
    if (option->protocol == k_mqtt5) packet.ReadProperties(ack.properties);
  }
  packet.CheckPosition();
  return true;
}

// Identifier, and under MQTT 5.0 a reason code and properties that nobody asks for.
void SelfMqttImpl::DecodePubAck(InboundPacket& packet, AckEvent& event) const {
  if (!packet.ReadUint16(&event.message_id)) return;
  uint8_t reason_code = 0;
  if (!IsMqtt5() || !packet.body.ReadByte(&reason_code)) return;  // it may be left out
  ZEB_LOG_AS(kDecodePacket, LOG_DEBUG, "msg_type [%d] reason_code [%x]\n", static_cast<int>(packet.type),
             reason_code);
  Properties unused;
  if (!packet.body.empty()) packet.ReadProperties(unused);
}

bool SelfMqttImpl::DecodePubRel(InboundPacket& packet, AckEvent& event) {
  DecodePubAck(packet, event);
  const bool known = inbound_.Release(event.message_id);
  if (known) {
    auto user_property = AckUserProperties(pubcomp_user_property_);
    // The broker sends PUBREL again if this does not reach it.
    (void)PublishResponse(MsgType::PUBCOMP, event.message_id, 0, user_property);
  } else {
    for (const int priority : {LOG_WARNING, LOG_ERR}) {
      ZEB_LOG_AS(kDecodePacket, priority, "Cannot find message_id [%u] in recv_publish_msg_l\n",
                 static_cast<unsigned int>(event.message_id));
    }
  }
  packet.CheckPosition();
  return !known;
}

bool SelfMqttImpl::DecodeSubAck(InboundPacket& packet, AckEvent& event) const {
  const bool mqtt5 = IsMqtt5();
  const bool suback = packet.type == MsgType::SUBACK;
  int code = kNoCode;
  event.records = std::make_unique<AckRecords>();
  auto& [connect_ack, subscription_ack, unsubscription_ack] = *event.records;
  if (packet.ReadUint16(&event.message_id)) {
    if (mqtt5) packet.ReadProperties(suback ? subscription_ack.properties : unsubscription_ack.properties);
    uint8_t first = 0;
    if ((suback || mqtt5) && packet.ReadByte(&first)) code = first;
  }
  CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "message_id %u payload 0x%x\n",
                static_cast<unsigned int>(event.message_id), static_cast<unsigned int>(code));
  if (suback) {
    subscription_ack.message_id = event.message_id;
    if (code != kNoCode) subscription_ack.reason_code = code;
  } else {
    unsubscription_ack.message_id = event.message_id;
    if (code != kNoCode) unsubscription_ack.reason_code = code;
  }
  packet.CheckPosition();
  return true;
}

bool SelfMqttImpl::DecodePingResp(InboundPacket& packet) {
  RecordPong();
  packet.StopHere();
  return ping_wait_;
}

bool SelfMqttImpl::DecodeDisconnect(InboundPacket& packet) {
  uint8_t reason = 0;  // an absent one means normal disconnection (MQTT 5.0, 3.14.2.1)
  packet.body.ReadByte(&reason);
  CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "disconnect_reason_code 0x%x remain_len %d \n ", reason,
                packet.remaining_length);
  if (reason != 0) {
    broker_reason_code_ = reason;
    EndSession(kNetworkFailure);
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "DISCONNECT received from broker, reason_cause: %d\n", reason);
  }
  Properties unused;
  if (!packet.body.empty()) packet.ReadProperties(unused);
  packet.CheckPosition();
  return false;
}

void SelfMqttImpl::DecodePublish(InboundPacket& packet) {
  PublishMessage message;
  uint16_t topic_length = 0;
  if (!packet.body.ReadUint16(&topic_length) || !packet.body.ReadBytes(topic_length, &message.topic)) {
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "");
    packet.StopHere();
    return;
  }
  CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "RECEIVED PUBLISH [%s] qos [%u]\n", message.topic.c_str(),
                packet.qos);
  if (packet.qos != 0) {
    if (!packet.body.ReadUint16(&message.message_id)) {
      CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "");
      packet.StopHere();
      return;
    }
    CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "RECEIVED message_id  [%u]\n",
                  static_cast<unsigned int>(message.message_id));
    AnswerPublish(packet, message);
  }
  if (IsMqtt5()) {
    Properties unused;
    packet.ReadProperties(unused);
  }
  packet.body.ReadBytes(packet.body.remaining(), &message.payload);
  DeliverMessage(message);
}

// The acknowledgement goes out before the application sees the message. A send that fails is not looked at:
// the broker sends the message again.
void SelfMqttImpl::AnswerPublish(const InboundPacket& packet, const PublishMessage& message) {
  if (packet.qos == 1) {
    auto user_property = AckUserProperties(puback_user_property_);
    (void)PublishResponse(MsgType::PUBACK, message.message_id, 0, user_property);
    return;
  }
  auto user_property = AckUserProperties(pubrec_user_property_);
  (void)PublishResponse(MsgType::PUBREC, message.message_id, 0, user_property);
  if (packet.qos == 2) inbound_.Add(message.message_id, util::BootTimeUs());
}

void SelfMqttImpl::DeliverMessage(PublishMessage& message) {
  const auto option = Options();
  if (!option->message_cb) return;
  message.wrapper = wrapper_;
  try {
    option->message_cb(message);
  } catch (const std::exception& error) {
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "message_cb threw [%s]", error.what());
  } catch (...) {
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "message_cb threw");
  }
}

}  // namespace zeb::mqtt
