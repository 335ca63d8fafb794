// MQTT 5.0 properties: writes them one by one and reads them as a block.
#include <algorithm>
#include <utility>

#include "mqtt/codec/codec.h"
#include "mqtt/codec/packet_reader.h"
#include "util/log.h"

namespace zeb::mqtt {
namespace {

constexpr char kDecodeProperties[] =
    "int zeb::mqtt::SelfMqttImpl::DecodeProperties(uint8_t*, size_t, zeb::mqtt::MsgType, "
    "zeb::mqtt::MqttWrapper::Properties&)";
constexpr char kEncodePair[] =
    "int zeb::mqtt::SelfMqttImpl::EncodeProperty(uint8_t*, zeb::mqtt::MqttWrapper::PairedString&, uint8_t)";
constexpr char kEncodeUint32[] = "int zeb::mqtt::SelfMqttImpl::EncodeProperty(uint8_t*, uint32_t, uint8_t)";
constexpr char kEncodeUint16[] = "int zeb::mqtt::SelfMqttImpl::EncodeProperty(uint8_t*, uint16_t, uint8_t)";
constexpr char kEncodeBool[] = "int zeb::mqtt::SelfMqttImpl::EncodeProperty(uint8_t*, bool, uint8_t)";
constexpr char kEncodeText[] = "int zeb::mqtt::SelfMqttImpl::EncodeProperty(uint8_t*, std::string&, uint8_t)";
constexpr int kMaxProperties = 20;   // in one block; no packet of a broker needs more
constexpr size_t kIdentifier = 1;    // bytes
constexpr size_t kStringLength = 2;  // bytes

using Properties = MqttWrapper::Properties;

// The tables below say which field an identifier fills, one table for each form of value.
template <typename Field>
struct PropertyField {
  PropertyId identifier;
  Field Properties::*field;
};

constexpr PropertyField<int64_t> kFourByteFields[] = {
    {PropertyId::kSessionExpiryInterval, &Properties::session_expiry_interval},
    {PropertyId::kMaximumPacketSize, &Properties::maximum_packet_size},
};
constexpr PropertyField<uint32_t> kTwoByteFields[] = {
    {PropertyId::kServerKeepAlive, &Properties::server_keep_alive},
    {PropertyId::kReceiveMaximum, &Properties::receive_maximum},
    {PropertyId::kTopicAliasMaximum, &Properties::topic_alias_maximum},
    {PropertyId::kTopicAlias, &Properties::topic_alias},
};
constexpr PropertyField<uint16_t> kByteFields[] = {
    {PropertyId::kMaximumQos, &Properties::maximum_qos},
    {PropertyId::kRetainAvailable, &Properties::retain_available},
    {PropertyId::kWildcardSubscriptionAvailable, &Properties::wildcard_subscription_available},
    {PropertyId::kSubscriptionIdentifierAvailable, &Properties::subscription_identifier_available},
    {PropertyId::kSharedSubscriptionAvailable, &Properties::shared_subscription_available},
};
constexpr PropertyField<std::string> kStringFields[] = {
    {PropertyId::kAssignedClientIdentifier, &Properties::assigned_client_identifier},
    {PropertyId::kAuthenticationMethod, &Properties::authentication_method},
    {PropertyId::kResponseInformation, &Properties::response_information},
    {PropertyId::kServerReference, &Properties::server_reference},
    {PropertyId::kReasonString, &Properties::reason_string},
};

template <typename Field, size_t N>
Field Properties::*Find(const PropertyField<Field> (&fields)[N], uint8_t identifier) {
  for (const auto& entry : fields) {
    if (static_cast<uint8_t>(entry.identifier) == identifier) return entry.field;
  }
  return nullptr;
}

bool DecodeUserProperty(PacketReader& block, uint8_t identifier, Properties& properties) {
  MqttWrapper::PairedString pair;
  if (!block.ReadString(&pair.key) || !block.ReadString(&pair.val)) return false;
  ZEB_LOG_AS(kDecodeProperties, LOG_DEBUG, "identifier [%x] val [%s:%s]\n", identifier, pair.key.c_str(),
             pair.val.c_str());
  properties.user_property.push_back(std::move(pair));
  return true;
}

// Reads the value behind the identifier. Returns false if the value does not end within the block. An unknown
// identifier is taken to have no value.
bool DecodeValue(PacketReader& block, uint8_t identifier, Properties& properties) {
  if (auto four = Find(kFourByteFields, identifier)) {
    uint32_t value = 0;
    if (!block.ReadUint32(&value)) return false;
    properties.*four = value;
    ZEB_LOG_AS(kDecodeProperties, LOG_DEBUG, "id [%x] val [%u]\n", identifier, value);
  } else if (auto two = Find(kTwoByteFields, identifier)) {
    uint16_t value = 0;
    if (!block.ReadUint16(&value)) return false;
    properties.*two = value;
    ZEB_LOG_AS(kDecodeProperties, LOG_DEBUG, "identifier [%x] val [%u]\n", identifier, value);
  } else if (auto one = Find(kByteFields, identifier)) {
    uint8_t value = 0;
    if (!block.ReadByte(&value)) return false;
    properties.*one = value;
    ZEB_LOG_AS(kDecodeProperties, LOG_DEBUG, "identifier [%x] val [%u]\n", identifier, value);
  } else if (auto text = Find(kStringFields, identifier)) {
    if (!block.ReadString(&(properties.*text))) return false;
    ZEB_LOG_AS(kDecodeProperties, LOG_DEBUG, "identifier [%x] val [%s]\n", identifier,
               (properties.*text).c_str());
  } else if (identifier == static_cast<uint8_t>(PropertyId::kUserProperty)) {
    return DecodeUserProperty(block, identifier, properties);
  }
  return true;
}

uint8_t* EndOf(uint8_t* buf, const PacketWriter& writer) { return buf + writer.size(); }

template <typename Integer>
int LogInteger(const char* function, uint8_t identifier, Integer value, uint8_t* buf,
               const PacketWriter& writer) {
  const int length = static_cast<int>(writer.size());
  ZEB_LOG_AS(function, LOG_DEBUG, "identifier [%x] val [%u] buf [%p] nbuf [%p] length [%d]\n", identifier,
             static_cast<unsigned int>(value), static_cast<void*>(buf),
             static_cast<void*>(EndOf(buf, writer)), length);
  return length;
}

}  // namespace

int Codec::EncodeProperty(uint8_t* buf, PairedString& pair, uint8_t identifier) {
  if (buf == nullptr || pair.key.empty() || pair.val.empty()) return 0;
  PacketWriter writer(buf, kIdentifier + 2 * kStringLength + pair.key.size() + pair.val.size());
  writer.AppendVbi(identifier);
  writer.AppendString(pair.key);
  writer.AppendString(pair.val);
  const int length = static_cast<int>(writer.size());
  ZEB_LOG_AS(kEncodePair, LOG_DEBUG, "nbuf [%p] buf [%p] length [%d]\n",
             static_cast<void*>(EndOf(buf, writer)), static_cast<void*>(buf), length);
  return length;
}

int Codec::EncodeProperty(uint8_t* buf, uint32_t value, uint8_t identifier) {
  if (buf == nullptr) return -1;
  PacketWriter writer(buf, kIdentifier + sizeof value);
  writer.AppendVbi(identifier);
  writer.AppendUint32(value);
  return LogInteger(kEncodeUint32, identifier, value, buf, writer);
}

int Codec::EncodeProperty(uint8_t* buf, uint16_t value, uint8_t identifier) {
  if (buf == nullptr) return -1;
  PacketWriter writer(buf, kIdentifier + sizeof value);
  writer.AppendVbi(identifier);
  writer.AppendUint16(value);
  return LogInteger(kEncodeUint16, identifier, value, buf, writer);
}

int Codec::EncodeProperty(uint8_t* buf, bool value, uint8_t identifier) {
  if (buf == nullptr) return -1;
  PacketWriter writer(buf, kIdentifier + 1);
  writer.AppendVbi(identifier);
  writer.AppendByte(value ? 1 : 0);
  const int length = static_cast<int>(writer.size());
  ZEB_LOG_AS(kEncodeBool, LOG_DEBUG, "identifier [%x] val [%d] buf [%p] nbuf [%p] length [%d]\n", identifier,
             value ? 1 : 0, static_cast<void*>(buf), static_cast<void*>(EndOf(buf, writer)), length);
  return length;
}

int Codec::EncodeProperty(uint8_t* buf, std::string& value, uint8_t identifier) {
  if (buf == nullptr) return -1;
  PacketWriter writer(buf, kIdentifier + kStringLength + value.size());
  writer.AppendVbi(identifier);
  writer.AppendString(value);
  const int length = static_cast<int>(writer.size());
  ZEB_LOG_AS(kEncodeText, LOG_DEBUG, "identifier [%x] val [%s] buf [%p] nbuf [%p] length [%d]\n", identifier,
             value.c_str(), static_cast<void*>(buf), static_cast<void*>(EndOf(buf, writer)), length);
  return length;
}

// The writer has no place for what does not fit, and EncodeProperty then writes nothing. The writer also
// notes a string that is too long for its two-byte length and refuses the whole body.
void Codec::AppendProperty(PacketWriter& body, PairedString& pair, PropertyId identifier) {
  if (pair.key.empty() || pair.val.empty()) return;
  body.CheckString(pair.key);
  body.CheckString(pair.val);
  uint8_t* place = body.Reserve(kIdentifier + 2 * kStringLength + pair.key.size() + pair.val.size());
  (void)EncodeProperty(place, pair, static_cast<uint8_t>(identifier));
}

void Codec::AppendProperty(PacketWriter& body, uint32_t value, PropertyId identifier) {
  (void)EncodeProperty(body.Reserve(kIdentifier + sizeof value), value, static_cast<uint8_t>(identifier));
}

void Codec::AppendProperty(PacketWriter& body, uint16_t value, PropertyId identifier) {
  (void)EncodeProperty(body.Reserve(kIdentifier + sizeof value), value, static_cast<uint8_t>(identifier));
}

void Codec::AppendProperty(PacketWriter& body, bool value, PropertyId identifier) {
  (void)EncodeProperty(body.Reserve(kIdentifier + 1), value, static_cast<uint8_t>(identifier));
}

void Codec::AppendProperty(PacketWriter& body, std::string& value, PropertyId identifier) {
  body.CheckString(value);
  uint8_t* place = body.Reserve(kIdentifier + kStringLength + value.size());
  (void)EncodeProperty(place, value, static_cast<uint8_t>(identifier));
}

int Codec::DecodeProperties(const uint8_t* buf, size_t len, MsgType type, Properties& properties) {
  if (len == 0) return 0;
  int length = 0;
  const int length_bytes = DecodeVbi(buf, static_cast<unsigned int>(len), length);
  const auto declared = static_cast<size_t>(length);
  const size_t available = len - static_cast<size_t>(length_bytes);
  PacketReader block(buf + length_bytes, std::min(declared, available));
  ZEB_LOG_AS(kDecodeProperties, LOG_DEBUG, "type [%d] property_length [%d]\n", static_cast<int>(type),
             length);
  ZEB_LOG_AS(kDecodeProperties, LOG_DEBUG, "nbuf [%p] ebuf [%p] len [%zu]\n",
             static_cast<const void*>(block.position()), static_cast<const void*>(buf + len), len);
  for (int count = 0; !block.empty() && count < kMaxProperties; ++count) {
    PacketReader property = block;
    uint8_t identifier = 0;
    property.ReadByte(&identifier);
    ZEB_LOG_AS(kDecodeProperties, LOG_DEBUG, "identifier [%x] count [%d]\n", identifier, count);
    if (!DecodeValue(property, identifier, properties)) break;  // stays short of the end: reported below
    block = property;
  }
  if (block.offset() != declared) {
    ZEB_LOG_AS(kDecodeProperties, LOG_WARNING, "Invalid property parsing for [%d]\n", static_cast<int>(type));
  }
  return length_bytes + length;
}

}  // namespace zeb::mqtt
