// The session that docs/wire_format.md shows, for whoever compares what it sends.
#pragma once

#include <sstream>

#include "tests/session/session.h"
#include "wire_format_page.h"

namespace zeb::test {

/// MQTT 3.1.1 and 5.0; "+": with every field set.
constexpr const char* k_conversations[] = {"3", "5", "3+", "5+"};

/// The page's bytes by "<conversation> <sent or taken> <packet>".
inline const std::map<std::string, std::string>& Page() {
  static const auto page = [] {
    std::map<std::string, std::string> blocks;
    std::istringstream text(k_wire_format_page);
    std::string name;
    for (std::string line; std::getline(text, line);) {
      if (line.rfind("```", 0) == 0) name = line.rfind("```hex ", 0) == 0 ? line.substr(7) : "";
      if (!name.empty() && line[0] != '`') blocks[name] += Bytes(line.substr(0, line.find('|')));
    }
    return blocks;
  }();
  return page;
}
/// What the page shows for the conversation or, where it does not, for the plain one; else nothing.
inline std::string OnPage(const std::string& conversation, const std::string& packet) {
  const auto own = Page().find(conversation + packet);
  if (own != Page().end()) return own->second;
  return conversation.size() == 1 ? "" : OnPage(conversation.substr(0, 1), packet);
}

struct Conversation : Session {
  explicit Conversation(const std::string& name)
      : Session(name[0] == '5' ? k_mqtt5 : k_mqtt311, Answers(name)),
        inbound(OnPage(name, " taken PUBLISH")) {
    option.client_id = "m7";
    option.keep_alive = 60;
    inbound += '\x34' + inbound.substr(1) + OnPage(name, " taken PUBREL");
    if (name.size() > 1) SetEveryField();
  }
  static std::map<MsgType, Handler> Answers(const std::string& name) {
    const auto answer = [&](const char* type) { return Reply(Hex(OnPage(name, type))); };
    const std::string acks[] = {"", OnPage(name, " taken PUBACK"), OnPage(name, " taken PUBREC")};
    return {{MsgType::CONNECT, answer(" taken CONNACK")},
            {MsgType::SUBSCRIBE, answer(" taken SUBACK")},
            {MsgType::PUBLISH, [=](auto& connection, auto& packet) { connection.Send(acks[packet.qos()]); }},
            {MsgType::PUBREL, answer(" taken PUBCOMP")},
            {MsgType::UNSUBSCRIBE, answer(" taken UNSUBACK")},
            {MsgType::PINGREQ, answer(" taken PINGRESP")}};
  }
  void SetEveryField() {
    std::list<MqttWrapper::PairedString> pairs = {{"", "v"}, {"k", "v"}, {"k", ""}};  // one of which is whole
    option.clean_session = false;
    option.user_name = "u";
    option.password = "p";
    option.session_expiry_interval = 0xFEDCBA98;
    option.receive_maximum = 10;
    option.topic_alias_maximum = 0;
    option.request_response_information = 1;
    option.request_problem_information = 0;
    option.lwt = {
        true, Message("w", std::string("x\0y", 3), 2, true), {1, 0xFFFFFFFF, "ct", "rt", {}, 1, pairs}};
    message = Message("t/1", "20.5", 0, true, true);
    topics.topics["t/1"] = 7;
    topics.subscription_identifier = 268'435'455;
    leave = {0x9C, 1, "s", "r", pairs};
    option.user_property = topics.user_property = filters.user_property = pairs;
    (void)client.SetPubAckUserProperties(pairs);
    (void)client.SetPubRecUserProperties(pairs);
    (void)client.SetPubCompUserProperties(pairs);
  }
  /// All but the leave; the results.
  std::vector<Result> Hold() {
    std::vector<Result> results = {Start(), client.Subscribe(topics, nullptr)};
    for (const uint8_t qos : {uint8_t{0}, uint8_t{1}, uint8_t{5}}) {
      message.qos = qos;
      results.push_back(client.Publish(message));
    }
    results.push_back(client.Unsubscribe(filters, nullptr));
    broker.connection().Send(inbound);
    results.push_back(client.Ping(true));
    return results;
  }

  std::string inbound;
  MqttWrapper::PublishOption message = Message("t/1", "20.5", 0);
  MqttWrapper::SubscribeOption topics{{{"t/1", 1}}, 0, {}};
  MqttWrapper::UnsubscribeOption filters{{"t/1"}, {}};
  MqttWrapper::DisconnectOption leave;
};

}  // namespace zeb::test
