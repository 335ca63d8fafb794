// Identifiers of the MQTT 5.0 properties that the library writes or reads (MQTT 5.0, 2.2.2.2).
#pragma once

#include <cstdint>

namespace zeb::mqtt {

/// The values are those on the wire. All are below 0x80, so each takes one byte.
enum class PropertyId : uint8_t {
  kPayloadFormatIndicator = 0x01,
  kMessageExpiryInterval = 0x02,
  kContentType = 0x03,
  kResponseTopic = 0x08,
  kSubscriptionIdentifier = 0x0B,
  kSessionExpiryInterval = 0x11,
  kAssignedClientIdentifier = 0x12,
  kServerKeepAlive = 0x13,
  kAuthenticationMethod = 0x15,
  kRequestProblemInformation = 0x17,
  kWillDelayInterval = 0x18,
  kRequestResponseInformation = 0x19,
  kResponseInformation = 0x1A,
  kServerReference = 0x1C,
  kReasonString = 0x1F,
  kReceiveMaximum = 0x21,
  kTopicAliasMaximum = 0x22,
  kTopicAlias = 0x23,
  kMaximumQos = 0x24,
  kRetainAvailable = 0x25,
  kUserProperty = 0x26,
  kMaximumPacketSize = 0x27,
  kWildcardSubscriptionAvailable = 0x28,
  kSubscriptionIdentifierAvailable = 0x29,
  kSharedSubscriptionAvailable = 0x2A,
};

}  // namespace zeb::mqtt
