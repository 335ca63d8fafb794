// SUBSCRIBE and UNSUBSCRIBE. Application threads.
#include "mqtt/client_log.h"
#include "mqtt/request.h"

namespace zeb::mqtt {
namespace {

constexpr char kSubscribe[] =
    "zeb::Result zeb::mqtt::SelfMqttImpl::Subscribe(zeb::mqtt::MqttWrapper::SubscribeOption&, "
    "zeb::mqtt::MqttWrapper::SubscriptionAck*)";
constexpr char kUnsubscribe[] =
    "zeb::Result zeb::mqtt::SelfMqttImpl::Unsubscribe(zeb::mqtt::MqttWrapper::UnsubscribeOption&, "
    "zeb::mqtt::MqttWrapper::UnsubscriptionAck*)";
constexpr int32_t kMaxSubscriptionIdentifier = 268435455;
constexpr uint8_t kMaxQos = 2;
constexpr uint8_t kFixedQos = 1;       // the flags that MQTT fixes for SUBSCRIBE and UNSUBSCRIBE
constexpr size_t kFilterOverhead = 3;  // bytes: length and options

}  // namespace

Result SelfMqttImpl::Subscribe(MqttWrapper::SubscribeOption& option, MqttWrapper::SubscriptionAck* ack) {
  if (tx_buf_ == nullptr) return kFailure;
  const std::shared_ptr<Session> session = lifecycle_.Current();
  Request request{*this, *session, MsgType::SUBSCRIBE, -1, ack, false, kFixedQos};
  util::MutexLock body_lock(message_id_mutex_);
  PacketWriter body(tx_buf_.get(), static_cast<size_t>(k_max_tx_buf_));
  const int message_id = NextMessageId(*session);
  body.AppendUint16(static_cast<uint16_t>(message_id));
  if (session->mqtt5()) {
    const Result result = AppendSubscribeProperties(body, option);
    if (result != kSuccess) return result;
  }
  const Result result = AppendFilters(body, option);
  if (result != kSuccess) return result;
  if (!BodyFits("SUBSCRIBE", body)) return kInvalidArgument;
  request.message_id = message_id;
  return request.Send(body.begin(), body.end(), &body_lock);
}

Result SelfMqttImpl::AppendSubscribeProperties(PacketWriter& body, MqttWrapper::SubscribeOption& option) {
  CLIENT_LOG_AS(kSubscribe, LOG_DEBUG, "SUBSCRIBE PROPERTIES");
  CLIENT_LOG_AS(kSubscribe, LOG_DEBUG, "si [%d]", option.subscription_identifier);
  LogUserProperties(kSubscribe, option.user_property);
  const size_t block = body.BeginBlock();
  if (option.subscription_identifier > kMaxSubscriptionIdentifier) {
    CLIENT_LOG_AS(kSubscribe, LOG_ERR, "Invalid subscription_identifier [%x]",
                  static_cast<unsigned int>(option.subscription_identifier));
    return kFailure;
  }
  if (option.subscription_identifier >= 1) {
    body.AppendVbi(static_cast<uint8_t>(PropertyId::kSubscriptionIdentifier));
    body.AppendVbi(static_cast<uint32_t>(option.subscription_identifier));
  }
  AppendUserProperties(kSubscribe, body, option.user_property);
  body.EndBlock(block);
  return kSuccess;
}

Result SelfMqttImpl::AppendFilters(PacketWriter& body, MqttWrapper::SubscribeOption& option) const {
  for (auto& [filter, qos] : option.topics) {
    if (filter.empty()) {
      CLIENT_LOG_AS(kSubscribe, LOG_ERR, "No topic name for subscription");
      return kInvalidArgument;
    }
    const size_t requested = body.size() + filter.size() + kFilterOverhead;
    if (requested > static_cast<size_t>(k_max_tx_buf_)) {
      CLIENT_LOG_AS(kSubscribe, LOG_DEBUG, "max tx buf [%d] , requested size [%d]", k_max_tx_buf_,
                    static_cast<int>(requested));
      return kInvalidArgument;
    }
    if (qos > kMaxQos) {
      CLIENT_LOG_AS(kSubscribe, LOG_ERR, "Qos [%u] must be between 0 ~ 2 on topic [%s]",
                    static_cast<unsigned int>(qos), filter.c_str());
      qos = kMaxQos;
    }
    CLIENT_LOG_AS(kSubscribe, LOG_DEBUG, "topic [%s][%zd] qos [%u]", filter.c_str(),
                  static_cast<ssize_t>(filter.size()), static_cast<unsigned int>(qos));
    body.AppendString(filter);
    body.AppendByte(qos);  // No Local, Retain As Published and Retain Handling stay 0
  }
  return kSuccess;
}

Result SelfMqttImpl::Unsubscribe(MqttWrapper::UnsubscribeOption& option,
                                 MqttWrapper::UnsubscriptionAck* ack) {
  if (tx_buf_ == nullptr) return kFailure;
  const std::shared_ptr<Session> session = lifecycle_.Current();
  Request request{*this, *session, MsgType::UNSUBSCRIBE, -1, ack, false, kFixedQos};
  util::MutexLock body_lock(message_id_mutex_);
  PacketWriter body(tx_buf_.get(), static_cast<size_t>(k_max_tx_buf_));
  const int message_id = NextMessageId(*session);
  body.AppendUint16(static_cast<uint16_t>(message_id));
  if (session->mqtt5()) {
    CLIENT_LOG_AS(kUnsubscribe, LOG_DEBUG, "UNSUBSCRIBE PROPERTIES");
    LogUserProperties(kUnsubscribe, option.user_property);
    const size_t block = body.BeginBlock();
    AppendUserProperties(kUnsubscribe, body, option.user_property);
    body.EndBlock(block);
  }
  for (const std::string& filter : option.topics) body.AppendString(filter);
  if (!BodyFits("UNSUBSCRIBE", body)) return kInvalidArgument;
  request.message_id = message_id;
  return request.Send(body.begin(), body.end(), &body_lock);
}

}  // namespace zeb::mqtt
