// docs/wire_format.md: what it shows is what is sent and taken.
#include "tests/session/conversation.h"

namespace zeb::test {
namespace {

TEST(WireFormatPage, ShowsWhatIsSentAndTaken) {
  ASSERT_EQ(Page().size(), 51U);
  for (const std::string name : k_conversations) {
    SCOPED_TRACE(name);
    const LogCapture log;
    Conversation session(name);
    EXPECT_EQ(session.Hold(), std::vector<Result>(7, kSuccess));
    EXPECT_EQ(session.payloads.Await(2), (std::vector<std::string>{"20.5", "20.5"}));
    EXPECT_FALSE(log.Contains("Target pointer") || log.Contains("Invalid"));  // every field was understood
    EXPECT_EQ(session.option.maximum_packet_size, name[0] == '5' ? 131'072 : -1);
    EXPECT_LE(session.topics.topics["t/1"] + session.message.qos, 4);
    EXPECT_EQ(session.client.StopClient(&session.leave), kSuccess);
    ASSERT_EQ(session.broker.Await(MsgType::DISCONNECT).type(), MsgType::DISCONNECT);
    for (int type = 1; type < 16; ++type) {
      std::string sent;
      for (const Packet& packet : session.broker.Received(static_cast<MsgType>(type))) sent += packet.raw;
      EXPECT_EQ(Hex(sent), Hex(OnPage(name, " sent " + MqttWrapper::GetMsgTypeInStr(type))));
    }
  }
  StartedSession session(k_mqtt5);
  session.broker.connection().Send(OnPage("5", " taken DISCONNECT"));
  EXPECT_EQ(session.ends.Await(1), std::vector<int>{2});
  EXPECT_EQ(session.client.GetStatusInfo().reason_code, 0x8E);
}

TEST(WireFormatPage, NamesTheCodesThatExistAndNoOther) {
  std::map<std::string, std::string (*)(int)> tables = {
      {"```codes CONNACK 3", MqttWrapper::GetConnectReturnCodeInStr},
      {"```codes CONNACK 5", MqttWrapper::GetConnectReasonCodeInStr},
      {"```codes packets", MqttWrapper::GetMsgTypeInStr}};
  std::istringstream text(k_wire_format_page);
  for (std::string line; std::getline(text, line);) {
    if (tables.count(line) == 0) continue;
    const auto name_of = tables.extract(line).mapped();
    for (int code = -1; code <= 256; ++code) {
      const std::string name = name_of(code);
      if (name == "UNKNOWN") continue;
      std::getline(text, line);
      EXPECT_EQ(line, Hex({static_cast<char>(code)}) + " " + name);
    }
    EXPECT_TRUE(std::getline(text, line) && line == "```") << line;
  }
  EXPECT_EQ(tables.size(), 0U);
}

}  // namespace
}  // namespace zeb::test
