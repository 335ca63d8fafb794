// Creates and destroys the client, and keeps its settings. Any thread.
#include "mqtt/self_mqtt_impl.h"

#include <cstdio>
#include <new>
#include <utility>

#include "mqtt/client_log.h"

namespace zeb::mqtt {
namespace {

std::string WakeLockName(const void* client) {
  char address[16] = {};
  std::snprintf(address, sizeof address, "%u",
                static_cast<unsigned int>(reinterpret_cast<uintptr_t>(client)));
  return std::string("MQTT_") + address;
}

}  // namespace

SelfMqttImpl::SelfMqttImpl(MqttWrapper* wrapper)
    : wrapper_(wrapper),
      wake_lock_name_(WakeLockName(this)),
      tx_buf_(util::MapZeroedPages(static_cast<size_t>(k_max_tx_buf_))) {
  if (tx_buf_ == nullptr) CLIENT_LOG(LOG_DEBUG, "Cannot alloc tx_buf_");
}

SelfMqttImpl::~SelfMqttImpl() { Shutdown(); }

void SelfMqttImpl::Shutdown() {
  lifecycle_.Close();
  (void)StopRecvThread();  // kNotStarted: nothing to end
  lifecycle_.Current()->Close();
  lifecycle_.EndStop();
}

MqttWrapper::StatusInfo SelfMqttImpl::GetStatusInfo() const {
  MqttWrapper::StatusInfo info;
  info.status = status_;
  if (lifecycle_.Current()->mqtt5()) {
    info.reason_code = broker_reason_code_;
  } else {
    info.dis_reason = dis_reason_;
  }
  return info;
}

Result SelfMqttImpl::SetPubAckUserProperties(std::list<PairedString>& user_property) {
  const util::MutexLock lock(option_mutex_);
  puback_user_property_ = user_property;
  return kSuccess;
}

Result SelfMqttImpl::SetPubRecUserProperties(std::list<PairedString>& user_property) {
  const util::MutexLock lock(option_mutex_);
  pubrec_user_property_ = user_property;
  return kSuccess;
}

Result SelfMqttImpl::SetPubCompUserProperties(std::list<PairedString>& user_property) {
  const util::MutexLock lock(option_mutex_);
  pubcomp_user_property_ = user_property;
  return kSuccess;
}

std::string SelfMqttImpl::Tag() const noexcept {
  const util::MutexLock lock(option_mutex_);
  try {
    return tag_;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

void SelfMqttImpl::SetTag(const std::string& tag) {
  const util::MutexLock lock(option_mutex_);
  tag_ = tag;
}

std::list<MqttWrapper::PairedString> SelfMqttImpl::AckUserProperties(
    const std::list<PairedString>& list) const {
  const util::MutexLock lock(option_mutex_);
  return list;
}

int SelfMqttImpl::NextMessageId(Session& session) {
  constexpr int32_t k_last_message_id = 65535;
  session.message_id_ = session.message_id_ < k_last_message_id ? session.message_id_ + 1 : 1;
  return session.message_id_;
}

void SelfMqttImpl::LogUserProperties(const char* function,
                                     const std::list<PairedString>& user_property) const {
  for (const PairedString& pair : user_property) {
    CLIENT_LOG_AS(function, LOG_DEBUG, "user_property [%s]:[%s]", pair.key.c_str(), pair.val.c_str());
  }
}

void SelfMqttImpl::AppendUserProperties(const char* function, PacketWriter& body,
                                        std::list<PairedString>& user_property) {
  for (PairedString& pair : user_property) {
    if (pair.key.empty() || pair.val.empty()) {
      CLIENT_LOG_AS(function, LOG_WARNING, "User property key [%s] or val [%s] empty", pair.key.c_str(),
                    pair.val.c_str());
      continue;
    }
    AppendProperty(body, pair, PropertyId::kUserProperty);
  }
}

bool SelfMqttImpl::BodyFits(const char* request, const PacketWriter& body) const {
  if (body.string_too_long()) {
    CLIENT_LOG(LOG_ERR, "%s refused: a string is longer than [%zu] bytes", request,
               PacketWriter::k_max_string);
    return false;
  }
  if (!body.fits()) {
    CLIENT_LOG(LOG_ERR, "%s refused: k_max_tx_buf_ [%d] , requested size [%zu]", request, k_max_tx_buf_,
               body.size());
    return false;
  }
  return true;
}

}  // namespace zeb::mqtt
