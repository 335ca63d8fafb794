// What people read: log lines and the names of codes.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/mqtt_wrapper.h"
#include "tests/support/log_capture.h"

namespace zeb::mqtt {
namespace {

// Stands for a class of the library.
struct Speaker {
  std::string tag;
  int evaluated = 0;
  [[nodiscard]] std::string Tag() const { return tag; }
  void Say(int priority) {
    ZEB_LOG(priority, "plain [%d]", ++evaluated);
    CLIENT_LOG(priority, "tagged [%d]\n", ++evaluated);
  }
};

TEST(LogLine, NamesFunctionAndLineAndTheTagWhenThereIsOne) {
  const std::string prefix = R"(void zeb::mqtt::.*Speaker::Say\(int\) \d+: )";
  for (const std::string tag : {"", "sensor-7"}) {
    const test::LogCapture log;
    Speaker{tag}.Say(LOG_WARNING);
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1].priority, LOG_WARNING);
    const std::string shown = tag.empty() ? "" : R"(\[sensor-7\] )";
    const std::regex both(prefix + R"(plain \[1\])" + prefix + shown + R"(tagged \[2\]\n)");
    EXPECT_TRUE(std::regex_match(lines[0].text + lines[1].text, both)) << lines[1].text;
  }
}

TEST(LogLine, EvaluatesNothingWhileItsPriorityIsMasked) {
  const test::LogCapture log;
  const int before = ::setlogmask(LOG_UPTO(LOG_WARNING));
  Speaker speaker{"tag"};
  speaker.Say(LOG_DEBUG);
  EXPECT_EQ(speaker.evaluated, 0);
  speaker.Say(LOG_ERR);
  ::setlogmask(before);
  EXPECT_EQ(log.Lines().size(), 2U);
}

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
    std::map<int, std::string> names;
    std::istringstream words(list);
    int next = 0;
    for (std::string word; words >> word;) {
      if (word.front() > '9') names[next++] = word;
      if (word.front() <= '9') next = std::stoi(word);
    }
    for (int code = -1; code <= 256; ++code) {
      EXPECT_EQ(name_of(code), names.count(code) != 0 ? names[code] : "UNKNOWN") << code;
    }
  }
}

}  // namespace
}  // namespace zeb::mqtt
