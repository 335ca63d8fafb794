// The names of codes, as people read them.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "mqtt/mqtt_wrapper.h"

namespace zeb::mqtt {
namespace {

// In a list of names, a number is the code of the name behind it; the next ones follow without a gap.
TEST(CodeNames, AreKnownForTheCodesThatExistAndNoOther) {
  const std::pair<std::string (*)(int), const char*> tables[] = {
      {MqttWrapper::GetConnectReturnCodeInStr,
       "0 ACCEPTED UNACCEPTABLE_PROTOCOL_VERSION IDENTIFIER_REJECTED SERVER_UNAVAILABLE "
       "BAD_USER_NAME_OR_PASSWORD NOT_AUTHORIZED"},
      {MqttWrapper::GetConnectReasonCodeInStr,
       "0 SUCCESS UNACCEPTABLE_PROTOCOL_VERSION IDENTIFIER_REJECTED SERVER_UNAVAILABLE_V4 "
       "BAD_USER_NAME_OR_PASSWORD_V4 NOT_AUTHORIZED_V4 128 UNSPECIFIED_ERROR MALFORMED_PACKET "
       "PROTOCOL_ERROR IMPLEMENTATION_SPECIFIC_ERROR UNSUPPORTED_PROTOCOL_VERSION "
       "CLIENT_IDENTIFIER_NOT_VALID BAD_USER_NAME_OR_PASSWORD NOT_AUTHORIZED SERVER_UNAVAILABLE SERVER_BUSY "
       "BANNED 140 BAD_AUTHENTICATION_METHOD 144 TOPIC_NAME_INVALID 149 PACKET_TOO_LARGE 151 QUOTA_EXCEEDED "
       "153 PAYLOAD_FORMAT_INVALID RETAIN_NOT_SUPPORTED QOS_NOT_SUPPORTED USE_ANOTHER_SERVER SERVER_MOVED "
       "159 CONNECTION_RATE_EXCEEDED"},
      {MqttWrapper::GetMsgTypeInStr,
       "0 RESERVED CONNECT CONNACK PUBLISH PUBACK PUBREC PUBREL PUBCOMP SUBSCRIBE SUBACK UNSUBSCRIBE "
       "UNSUBACK PINGREQ PINGRESP DISCONNECT AUTH"}};
  for (const auto& [name_of, list] : tables) {
    std::string known;
    int next = -1;
    for (int code = -1; code <= 256; ++code) {
      const std::string name = name_of(code);
      if (name == "UNKNOWN") continue;
      if (code != next) known += std::to_string(code) + " ";
      known += name + " ";
      next = code + 1;
    }
    EXPECT_EQ(known, list + std::string(" "));
  }
}

}  // namespace
}  // namespace zeb::mqtt
