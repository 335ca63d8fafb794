// Runs the sessions of docs/wire_format.md and prints what they sent, delivered and logged, without what
// varies from run to run: two architectures must print the same.
#include <iostream>
#include <regex>
#include <set>

#include "tests/session/conversation.h"

namespace zeb::test {
namespace {

std::string Steady(const std::string& line) {
  static const std::regex varies(
      R"(\[0x[0-9a-f]+|(TID \[|path .*;|diff \[?|during |ping_sent |pong_recv )-?[0-9]+)");
  return std::regex_replace(line, varies, "$1~");
}

void Trace(const std::string& name, std::set<std::string>& printed) {
  Conversation session(name);
  session.option.keep_alive = 0;  // its timer's lines vary
  const auto print = [&](const std::string& what) { printed.insert(name + ' ' + what); };
  for (const Result result : session.Hold()) print("result " + std::to_string(result));
  for (const size_t size : {20'000U, 100'001U}) {
    session.message.payload = std::string(size, 'x');
    session.message.qos = 0;
    print("large " + std::to_string(session.client.Publish(session.message)));
  }
  session.Send("62 02 0009 40 01 07 90 04 0005 7F 02");
  for (int i = 0; i < 2; ++i) print("ping " + std::to_string(session.client.Ping(true)));
  print("stop " + std::to_string(session.client.StopClient(&session.leave)));
  for (int type = 1; type < 16; ++type)
    for (const Packet& packet : session.broker.Received(static_cast<MsgType>(type))) print(packet.hex());
  for (const std::string& payload : session.payloads.Await(0)) print("delivered " + payload);
}

}  // namespace
}  // namespace zeb::test

int main() {
  std::set<std::string> printed;
  const zeb::test::LogCapture log;
  for (const char* const name : zeb::test::k_conversations) zeb::test::Trace(name, printed);
  for (const auto& line : log.Lines()) {
    if (line.text.find("Got PONG") != std::string::npos) continue;  // which thread judges the answer varies
    printed.insert(std::to_string(line.priority) + " " + zeb::test::Steady(line.text));
  }
  for (const std::string& line : printed) std::cout << line << '\n';
}
