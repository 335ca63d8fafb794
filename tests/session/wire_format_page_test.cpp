// docs/wire_format.md, which the build hands over as text: what it shows is what is sent and taken.
#include "wire_format_page.h"

#include <sstream>

#include "tests/session/session.h"

namespace zeb::test {
namespace {

TEST(WireFormatPage, ShowsWhatIsSentAndTaken) {
  std::map<std::string, std::string> page;  // bytes by "<version> <sent or taken> <packet>"
  std::istringstream text(k_wire_format_page);
  std::string name;
  for (std::string line; std::getline(text, line);) {
    if (line.rfind("```", 0) == 0) name = line.rfind("```hex ", 0) == 0 ? line.substr(7) : "";
    if (!name.empty() && line[0] != '`') page[name] += Bytes(line.substr(0, line.find('|')));
  }
  ASSERT_EQ(page.size(), 39U);
  for (const int32_t protocol : {k_mqtt311, k_mqtt5}) {
    const std::string version = protocol == k_mqtt5 ? "5 " : "3 ";
    const auto taken = [&](const std::string& type) { return page.at(version + "taken " + type); };
    const auto answer = [&](const char* type) { return Reply(Hex(taken(type))); };
    const LogCapture log;
    Session session(protocol, {{MsgType::CONNECT, answer("CONNACK")},
                               {MsgType::SUBSCRIBE, answer("SUBACK")},
                               {MsgType::PUBREL, answer("PUBCOMP")},
                               {MsgType::UNSUBSCRIBE, answer("UNSUBACK")},
                               {MsgType::PINGREQ, answer("PINGRESP")},
                               {MsgType::PUBLISH, [&](Connection& connection, const Packet& packet) {
                                  connection.Send(taken(packet.qos() == 1 ? "PUBACK" : "PUBREC"));
                                }}});
    session.option.client_id = "m7";
    session.option.keep_alive = 60;
    ASSERT_EQ(session.Start(), kSuccess);
    MqttWrapper::SubscribeOption topics{{{"t/1", 1}}, 0, {}};
    EXPECT_EQ(session.client.Subscribe(topics, nullptr), kSuccess);
    auto message = Message("t/1", "20.5", 1);
    EXPECT_EQ(session.client.Publish(message), kSuccess);
    message.qos = 2;
    EXPECT_EQ(session.client.Publish(message), kSuccess);
    MqttWrapper::UnsubscribeOption filters{{"t/1"}, {}};
    EXPECT_EQ(session.client.Unsubscribe(filters, nullptr), kSuccess);
    const std::string inbound = taken("PUBLISH");
    session.broker.connection().Send(inbound + '\x34' + inbound.substr(1) + taken("PUBREL"));
    EXPECT_EQ(session.payloads.Await(2), (std::vector<std::string>{"20.5", "20.5"}));
    EXPECT_TRUE(session.Healthy());
    EXPECT_FALSE(log.Contains("Target pointer"));  // every field was understood
    MqttWrapper::DisconnectOption leave{4, -1, "", "", {}};
    EXPECT_EQ(session.client.StopClient(&leave), kSuccess);
    for (int type = 1; type < 15; ++type) {
      const auto sent = page.find(version + "sent " + MqttWrapper::GetMsgTypeInStr(type));
      if (sent == page.end()) continue;
      EXPECT_EQ(session.broker.Await(static_cast<MsgType>(type)).hex(), Hex(sent->second));
    }
  }
  StartedSession session(k_mqtt5);
  session.broker.connection().Send(page["5 taken DISCONNECT"]);
  EXPECT_EQ(session.ends.Await(1), std::vector<int>{2});
  EXPECT_EQ(session.client.GetStatusInfo().reason_code, 0x8E);
}

}  // namespace
}  // namespace zeb::test
