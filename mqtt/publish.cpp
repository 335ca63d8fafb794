// PUBLISH and the four publish acknowledgements. Publish runs on application threads. PublishResponse runs on
// the receive thread, too, so every acknowledgement is built in a buffer of its own.
#include <new>

#include "mqtt/client_log.h"
#include "mqtt/request.h"

namespace zeb::mqtt {
namespace {

constexpr char kPublishResponse[] =
    "zeb::Result zeb::mqtt::SelfMqttImpl::PublishResponse(zeb::mqtt::MsgType, uint16_t, uint8_t, "
    "std::__cxx11::list<zeb::mqtt::MqttWrapper::PairedString>&)";
constexpr uint8_t kMaxQos = 2;
constexpr int kNoMessageId = -1;
constexpr uint8_t kPubRelQos = 1;  // the flags that MQTT fixes for PUBREL

// The bytes that an acknowledgement needs before its property block moves up behind its length.
size_t AckCapacity(const std::list<MqttWrapper::PairedString>& user_property, bool mqtt5) {
  constexpr size_t k_message_id = 2;
  constexpr size_t k_reason_code = 1;
  constexpr size_t k_pair_overhead = 5;
  if (!mqtt5) return k_message_id;
  size_t capacity = k_message_id + k_reason_code + PacketWriter::k_max_vbi;
  for (const auto& pair : user_property) {
    if (pair.key.empty() || pair.val.empty()) continue;
    capacity += k_pair_overhead + pair.key.size() + pair.val.size();
  }
  return capacity;
}

}  // namespace

Result SelfMqttImpl::Publish(MqttWrapper::PublishOption& option) {
  if (option.topic.empty()) return kFailure;
  if (option.qos > kMaxQos) {
    CLIENT_LOG(LOG_ERR, "qos [%u] must be between 0 ~ 2", static_cast<unsigned int>(option.qos));
    option.qos = kMaxQos;
  }
  if (tx_buf_ == nullptr) return kFailure;
  const std::shared_ptr<Session> session = lifecycle_.Current();
  Request request{*this, *session, MsgType::PUBLISH};
  util::MutexLock body_lock(message_id_mutex_);
  PacketWriter body(tx_buf_.get(), static_cast<size_t>(k_max_tx_buf_));
  body.AppendString(option.topic);
  const int message_id = option.qos == 0 ? kNoMessageId : NextMessageId(*session);
  if (option.qos != 0) body.AppendUint16(static_cast<uint16_t>(message_id));
  if (session->mqtt5()) body.AppendVbi(0);  // no property is ever sent
  if (option.payload.size() > static_cast<size_t>(max_publish_)) {
    CLIENT_LOG(LOG_DEBUG, "max_publish buffer [%d] , requested buffer [%d]", max_publish_,
               static_cast<int>(option.payload.size()));
    return kInvalidArgument;
  }
  body.AppendBytes(option.payload.data(), option.payload.size());
  if (body.string_too_long()) {
    CLIENT_LOG(LOG_ERR, "topic of [%zu] bytes is longer than [%zu]", option.topic.size(),
               PacketWriter::k_max_string);
    return kInvalidArgument;
  }
  if (!body.fits()) {
    CLIENT_LOG(LOG_DEBUG, "k_max_tx_buf_ [%d] , requested buffer size [%d]", k_max_tx_buf_,
               static_cast<int>(body.size()));
    return kInvalidArgument;
  }
  CLIENT_LOG(LOG_DEBUG, "topic [%s] qos %d retain %d duplicated %d message_id [%d]", option.topic.c_str(),
             option.qos, option.retain ? 1 : 0, option.duplicated ? 1 : 0, message_id);
  request.message_id = message_id;
  request.retain = option.retain;
  request.qos = option.qos;
  request.dup = option.duplicated;
  const Result result = request.Send(body.begin(), body.end(), &body_lock);
  if (result != kSuccess || option.qos != 2) return result;
  std::list<PairedString> no_property;
  return PublishResponse(*session, MsgType::PUBREL, static_cast<uint16_t>(message_id), 0, no_property);
}

Result SelfMqttImpl::PublishResponse(MsgType type, uint16_t message_id, uint8_t reason_code,
                                     std::list<PairedString>& user_property) {
  return PublishResponse(*lifecycle_.Current(), type, message_id, reason_code, user_property);
}

Result SelfMqttImpl::PublishResponse(Session& session, MsgType type, uint16_t message_id, uint8_t reason_code,
                                     std::list<PairedString>& user_property) {
  if (type < MsgType::PUBACK || type > MsgType::PUBCOMP) return kFailure;
  const bool mqtt5 = session.mqtt5();
  const size_t capacity = AckCapacity(user_property, mqtt5);
  if (capacity > static_cast<size_t>(k_max_tx_buf_)) {
    CLIENT_LOG_AS(kPublishResponse, LOG_ERR, "user properties of [%zu] bytes do not fit an acknowledgement",
                  capacity);
    return kFailure;
  }
  const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[capacity]);
  if (buffer == nullptr) {
    CLIENT_LOG_AS(kPublishResponse, LOG_ERR, "Cannot alloc acknowledgement of [%zu] bytes", capacity);
    return kFailure;
  }
  PacketWriter body(buffer.get(), capacity);
  body.AppendUint16(message_id);
  if (mqtt5) {
    body.AppendByte(reason_code);
    const size_t block = body.BeginBlock();
    for (PairedString& pair : user_property) AppendProperty(body, pair, PropertyId::kUserProperty);
    CLIENT_LOG_AS(kPublishResponse, LOG_DEBUG, "property_length [%u]",
                  static_cast<unsigned int>(body.BlockLength(block)));
    body.EndBlock(block);
  }
  if (!body.fits()) {
    CLIENT_LOG_AS(kPublishResponse, LOG_ERR, "a user property is longer than [%zu] bytes",
                  PacketWriter::k_max_string);
    return kFailure;
  }
  const uint8_t qos = type == MsgType::PUBREL ? kPubRelQos : 0;
  return Request{*this, session, type, message_id, nullptr, false, qos}.Send(body.begin(), body.end());
}

}  // namespace zeb::mqtt
