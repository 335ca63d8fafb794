// Runs a fixed session in each protocol version and prints what it sent, delivered and logged, without what
// varies from run to run: two architectures must print the same.
#include <iostream>
#include <regex>
#include <set>

#include "tests/session/session.h"

namespace zeb::test {
namespace {

constexpr char k_connack5[] =
    "20 3F 01 00 3C 11 FEDCBA98 12 0002 'id' 13 FFFE 15 0001 'm' 1A 0001 'r' 1C 0001 's' 1F 0003 'why' 21 "
    "FFFF "
    "22 FFFF 24 01 25 01 26 0001 'k' 0002 'vw' 27 FFFFFFFF 28 01 29 01 2A 01";

void FillOptions(MqttWrapper::ConnectOption& option) {
  option.user_name = option.password = "u";
  option.session_expiry_interval = option.lwt.properties.will_delay_interval = 0xFFFFFFFF;
  option.receive_maximum = option.topic_alias_maximum = 65'535;
  option.request_problem_information = option.request_response_information = 1;
  option.user_property = {{"k", "v"}, {"", "v"}};
  option.lwt.enable = true;
  option.lwt.msg = Message("w", "gone", 2, true);
  option.lwt.properties.message_expiry_interval = 0xFFFFFFFE;
  option.lwt.properties.payload_format_indicator = 1;
}

std::string Steady(const std::string& line) {
  static const std::regex varies(
      R"(\[0x[0-9a-f]+|(TID \[|path .*;|diff \[?|during |ping_sent |pong_recv )-?[0-9]+)");
  return std::regex_replace(line, varies, "$1~");
}

void Trace(int32_t protocol, std::set<std::string>& printed) {
  std::map<MsgType, Handler> handlers;
  if (protocol == k_mqtt5) handlers[MsgType::CONNECT] = Reply(k_connack5);
  Session session(protocol, handlers);
  session.option.client_id = "trace";
  FillOptions(session.option);
  const std::string v = std::to_string(protocol) + " ";
  const auto print = [&](const std::string& what, long long value) {
    printed.insert(v + what + " " + std::to_string(value));
  };
  MqttWrapper::ConnectAck ack;
  print("start", session.client.StartClient(session.option, &ack));
  for (const long long value : {static_cast<long long>(ack.properties.session_expiry_interval),
                                static_cast<long long>(ack.properties.maximum_packet_size)})
    print("connack", value);
  MqttWrapper::SubscribeOption topics{{{"a/#", 2}, {"b", 7}}, 268'435'455, {{"k", "v"}}};
  print("subscribe", session.client.Subscribe(topics, nullptr));
  for (uint8_t qos = 0; qos < 3; ++qos) print("publish", session.Publish(qos, std::string(20'000, 'x')));
  MqttWrapper::PublishOption large = Message("a", std::string(100'001, 'x'), 1);
  print("large", session.client.Publish(large));
  MqttWrapper::UnsubscribeOption filters{{"a/#"}, {}};
  print("unsubscribe", session.client.Unsubscribe(filters, nullptr));
  for (const char* const packet :
       {"30 05 0001 'a' 00 'z'", "32 07 0001 'a' FFFF 00 'i'", "34 06 0001 'a' 0007 00", "62 02 0007",
        "62 02 0009", "40 01 07", "90 04 0005 7F 02"})
    session.Send(packet);
  for (int i = 0; i < 2; ++i) print("ping", session.client.Ping(true));
  MqttWrapper::DisconnectOption leave{4, 0xFFFFFFFF, "s", "r", {{"k", "v"}}};
  print("stop", session.client.StopClient(&leave));
  for (int type = 1; type < 16; ++type)
    for (const Packet& packet : session.broker.Received(static_cast<MsgType>(type)))
      printed.insert(v + "sent " + packet.hex());
  for (const std::string& payload : session.payloads.Await(0))
    printed.insert(v + "delivered " + Hex(payload));
}

}  // namespace
}  // namespace zeb::test

int main() {
  std::set<std::string> printed;
  const zeb::test::LogCapture log;
  for (const int32_t protocol : {zeb::test::k_mqtt311, zeb::test::k_mqtt5})
    zeb::test::Trace(protocol, printed);
  for (const auto& line : log.Lines()) {
    if (line.text.find("Got PONG") != std::string::npos) continue;  // which thread judges the answer varies
    printed.insert(std::to_string(line.priority) + " " + zeb::test::Steady(line.text));
  }
  for (const std::string& line : printed) std::cout << line << '\n';
}
