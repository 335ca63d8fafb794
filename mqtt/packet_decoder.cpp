// Decodes inbound packets, reports acknowledgements, answers the broker's QoS handshakes and delivers
// messages. All of it runs on the receive thread.
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

/// One packet being decoded. Its fields can be read within its own bytes alone, whatever lengths it declares.
struct SelfMqttImpl::Inbound {
  SelfMqttImpl& client;
  Session& session;
  const uint8_t* const begin;
  const FixedHeader header;

  PacketReader body{begin + header.size, static_cast<size_t>(header.remaining_length)};
  size_t used = header.size + static_cast<size_t>(header.remaining_length);  // bytes to report as used up
  const MsgType type = static_cast<MsgType>(begin[0] >> 4);
  const unsigned int qos = begin[0] >> 1 & 3U;
  size_t overrun = 0;  // bytes that fields and declared blocks take beyond where `body` stands
  AckEvent event{type, 0, nullptr};

  /// Does what the packet asks for. Returns whether the event is to be reported.
  bool Decode();

 private:
  std::string Tag() const { return client.Tag(); }
  // Fields that must be there. One that the packet is too short for keeps its default, and the position check
  // reports it.
  bool ReadByte(uint8_t* value) { return body.ReadByte(value) || Missing(sizeof *value); }
  bool ReadUint16(uint16_t* value) { return body.ReadUint16(value) || Missing(sizeof *value); }
  bool Missing(size_t length) {
    overrun += length;
    return false;
  }
  void ReadProperties(Properties& properties);
  void CheckPosition() const;
  // The caller resumes where decoding stopped, not at the packet's end.
  void StopHere() { used = header.size + body.offset(); }

  void DecodeConnack();
  void DecodePublish();
  void Answer(MsgType ack, uint16_t message_id, const std::list<PairedString>& list);
  void Deliver(MqttWrapper::PublishMessage& message);
  void DecodePubAck();
  bool DecodePubRel();
  void DecodeSubAck();
  bool DecodePingResp();
  void DecodeDisconnect();
};

// Decodes a property block and moves behind it, at most to the packet's end.
void SelfMqttImpl::Inbound::ReadProperties(Properties& properties) {
  const auto declared =
      static_cast<size_t>(DecodeProperties(body.position(), body.remaining(), type, properties));
  overrun += declared > body.remaining() ? declared - body.remaining() : 0;
  body.Skip(declared);
}

// Warns when the fields do not add up to the remaining length.
void SelfMqttImpl::Inbound::CheckPosition() const {
  if (body.empty() && overrun == 0) return;
  // Past the packet there is nothing to point to, so the line shows a number.
  const auto position = reinterpret_cast<uintptr_t>(body.position()) + overrun;
  ZEB_LOG_AS(kDecodePacket, LOG_WARNING, "Target pointer is [%p] but current pointer is [%p]\n",
             static_cast<const void*>(body.position() + body.remaining()),
             reinterpret_cast<const void*>(position));  // NOLINT(performance-no-int-to-ptr)
}

int SelfMqttImpl::DecodePackets(const uint8_t* buf, size_t len) {
  return DecodePackets(*lifecycle_.Current(), buf, len);
}

int SelfMqttImpl::DecodePacket(const uint8_t* buf, size_t len) {
  return DecodePacket(*lifecycle_.Current(), buf, len);
}

int SelfMqttImpl::DecodePackets(Session& session, const uint8_t* buf, size_t len) {
  auto left = static_cast<ssize_t>(len);
  if (left <= 0) return 0;
  int offset = 0;
  // After a stop nothing more is decoded: the session is over.
  while (left > 0 && !session.stop_asked()) {
    const int used = DecodePacket(session, buf + offset, static_cast<size_t>(left));
    if (used <= 0) break;
    left -= used;
    offset += used;
  }
  return offset;
}

int SelfMqttImpl::DecodePacket(Session& session, const uint8_t* buf, size_t len) {
  if (buf == nullptr) return -1;
  if (len < kMinPacket) return 0;
  const FixedHeader header = DecodeFixedHeader(buf, len);
  if (!header.CompleteWithin(len)) {
    CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "p [%p] remain_len [%d] b [%p] l [%zd]\n",
                  static_cast<const void*>(buf + header.size), header.remaining_length,
                  static_cast<const void*>(buf), static_cast<ssize_t>(len));
    return 0;
  }
  Inbound packet{*this, session, buf, header};
  CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "%s remain_len %d qos %u\n",
                MqttWrapper::GetMsgTypeInStr(packet.type).c_str(), header.remaining_length, packet.qos);
  if (packet.type == MsgType::RESERVED) {
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "Serious parsing error\n");
    return 0;
  }
  if (packet.Decode()) session.ack_event_q_.Enqueue(std::move(packet.event));
  return static_cast<int>(packet.used);
}

bool SelfMqttImpl::Inbound::Decode() {
  switch (type) {
    case MsgType::CONNACK:
      DecodeConnack();
      break;
    case MsgType::PUBLISH:
      DecodePublish();
      return true;  // it may have stopped short of the end
    case MsgType::PUBACK:
    case MsgType::PUBREC:
    case MsgType::PUBCOMP:
      DecodePubAck();
      break;
    case MsgType::PUBREL:
      return DecodePubRel();
    case MsgType::SUBACK:
    case MsgType::UNSUBACK:
      DecodeSubAck();
      break;
    case MsgType::PINGRESP:
      return DecodePingResp();
    case MsgType::DISCONNECT:
      if (session.mqtt5()) DecodeDisconnect();
      return !session.mqtt5();
    default:
      return true;  // nothing that a client is sent: reported by its type alone
  }
  CheckPosition();
  return true;
}

void SelfMqttImpl::Inbound::DecodeConnack() {
  util::MutexLock lock(session.send_mutex_);
  session.connack_seen_ = session.connect_begun_;
  lock.Unlock();
  uint8_t flags = 0;
  uint8_t code = 0;
  event.records = std::make_unique<AckRecords>();
  ConnectAck& ack = event.records->connect_ack;
  if (ReadByte(&flags) && ReadByte(&code)) {
    ack.session_present = (flags & 1) != 0;
    ack.reason_code = code;
    CLIENT_LOG_AS(
        kDecodePacket, LOG_DEBUG,
        "connect_acknowledge_flags 0x%x return_code %d[%s] session_present [%d] clean_session [%d]\n", flags,
        code, MqttWrapper::GetConnectReturnCodeInStr(static_cast<int>(code)).c_str(), flags & 1,
        session.option_->clean_session ? 1 : 0);
    if (session.mqtt5()) ReadProperties(ack.properties);
  }
}

// Identifier, and under MQTT 5.0 a reason code and properties that nobody asks for.
void SelfMqttImpl::Inbound::DecodePubAck() {
  if (!ReadUint16(&event.message_id)) return;
  uint8_t reason_code = 0;
  if (!session.mqtt5() || !body.ReadByte(&reason_code)) return;  // it may be left out
  ZEB_LOG_AS(kDecodePacket, LOG_DEBUG, "msg_type [%d] reason_code [%x]\n", static_cast<int>(type),
             reason_code);
  Properties unused;
  if (!body.empty()) ReadProperties(unused);
}

bool SelfMqttImpl::Inbound::DecodePubRel() {
  DecodePubAck();
  const bool known = client.inbound_.Release(event.message_id);
  if (known) {
    Answer(MsgType::PUBCOMP, event.message_id, client.pubcomp_user_property_);
  } else {
    for (const int priority : {LOG_WARNING, LOG_ERR}) {
      ZEB_LOG_AS(kDecodePacket, priority, "Cannot find message_id [%u] in recv_publish_msg_l\n",
                 static_cast<unsigned int>(event.message_id));
    }
  }
  CheckPosition();
  return !known;
}

void SelfMqttImpl::Inbound::DecodeSubAck() {
  const bool mqtt5 = session.mqtt5();
  const bool suback = type == MsgType::SUBACK;
  int code = kNoCode;
  event.records = std::make_unique<AckRecords>();
  auto& [connect_ack, subscription_ack, unsubscription_ack] = *event.records;
  if (ReadUint16(&event.message_id)) {
    if (mqtt5) ReadProperties(suback ? subscription_ack.properties : unsubscription_ack.properties);
    uint8_t first = 0;
    if ((suback || mqtt5) && ReadByte(&first)) code = first;
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
}

bool SelfMqttImpl::Inbound::DecodePingResp() {
  StopHere();
  const util::MutexLock lock(session.send_mutex_);
  session.ping_.Received(util::BootTimeUs());
  return session.ping_.waits();
}

void SelfMqttImpl::Inbound::DecodeDisconnect() {
  uint8_t reason = 0;  // an absent one means normal disconnection (MQTT 5.0, 3.14.2.1)
  body.ReadByte(&reason);
  CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "disconnect_reason_code 0x%x remain_len %d \n ", reason,
                header.remaining_length);
  if (reason != 0) {
    client.broker_reason_code_ = reason;
    client.EndSession(session, k_network_failure);
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "DISCONNECT received from broker, reason_cause: %d\n", reason);
  }
  Properties unused;
  if (!body.empty()) ReadProperties(unused);
  CheckPosition();
}

void SelfMqttImpl::Inbound::DecodePublish() {
  MqttWrapper::PublishMessage message;
  uint16_t topic_length = 0;
  if (!body.ReadUint16(&topic_length) || !body.ReadBytes(topic_length, &message.topic)) {
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "");
    StopHere();
    return;
  }
  CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "RECEIVED PUBLISH [%s] qos [%u]\n", message.topic.c_str(), qos);
  if (qos != 0) {
    if (!body.ReadUint16(&message.message_id)) {
      CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "");
      StopHere();
      return;
    }
    CLIENT_LOG_AS(kDecodePacket, LOG_DEBUG, "RECEIVED message_id  [%u]\n",
                  static_cast<unsigned int>(message.message_id));
    if (qos == 1) {
      Answer(MsgType::PUBACK, message.message_id, client.puback_user_property_);
    } else {
      Answer(MsgType::PUBREC, message.message_id, client.pubrec_user_property_);
    }
    if (qos == 2) client.inbound_.Add(message.message_id, util::BootTimeUs());
  }
  if (session.mqtt5()) {
    Properties unused;
    ReadProperties(unused);
  }
  body.ReadBytes(body.remaining(), &message.payload);
  Deliver(message);
}

// A failure to send is ignored, because the broker sends its packet again. The answer to a PUBLISH goes out
// before the application sees the message.
void SelfMqttImpl::Inbound::Answer(MsgType ack, uint16_t message_id, const std::list<PairedString>& list) {
  std::list<PairedString> user_property = client.AckUserProperties(list);
  (void)client.PublishResponse(session, ack, message_id, 0, user_property);
}

void SelfMqttImpl::Inbound::Deliver(MqttWrapper::PublishMessage& message) {
  const auto& message_cb = session.option_->message_cb;
  if (!message_cb) return;
  message.wrapper = client.wrapper_;
  try {
    message_cb(message);
  } catch (const std::exception& error) {
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "message_cb threw [%s]", error.what());
  } catch (...) {
    CLIENT_LOG_AS(kDecodePacket, LOG_ERR, "message_cb threw");
  }
}

}  // namespace zeb::mqtt
