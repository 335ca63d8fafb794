// What goes out on the wire, byte by byte, and what is refused before a byte goes out.
#include "tests/session/session.h"

namespace zeb::test {
namespace {

using Pair = MqttWrapper::PairedString;
using Type = MsgType;
using Adapt = std::function<void(MqttWrapper::ConnectOption&)>;
using Request = std::function<Result(Session&)>;

std::string Long(size_t size) { return std::string(size, 'x'); }
const std::list<Pair> k_huge(3, {"k", Long(65'000)});

Request Publishes(const std::string& topic, const std::string& payload, uint8_t qos, bool flags = false) {
  return [=](Session& session) {
    auto option = Message(topic, payload, qos, flags, flags);
    return session.client.Publish(option);
  };
}
Request Subscribes(const std::map<std::string, uint8_t>& topics, int32_t identifier = 0,
                   const std::list<Pair>& properties = {}) {
  return [=](Session& session) {
    MqttWrapper::SubscribeOption option{topics, identifier, properties};
    return session.client.Subscribe(option, nullptr);
  };
}
Request Unsubscribes(const std::list<std::string>& topics, const std::list<Pair>& properties = {}) {
  return [=](Session& session) {
    MqttWrapper::UnsubscribeOption option{topics, properties};
    return session.client.Unsubscribe(option, nullptr);
  };
}
Request Stops(MqttWrapper::DisconnectOption option) {
  return [option](Session& session) mutable { return session.client.StopClient(&option); };
}

// What docs/wire_format.md has no place for.
TEST(Wire, RequestsAtTheEdge) {
  const std::tuple<int32_t, Request, MsgType, const char*> cases[] = {
      {k_mqtt311, Publishes({"a\0b", 3}, "", 0), Type::PUBLISH, "3005 0003 610000"},  // ends at its first NUL
      {k_mqtt311, Subscribes({{"b", 0}, {"a", 7}}), Type::SUBSCRIBE, "820a 0001 00016102 00016200"},
      {k_mqtt311, Subscribes({}), Type::SUBSCRIBE, "8202 0001"},
      {k_mqtt311, Unsubscribes({"", "a"}), Type::UNSUBSCRIBE, "a207 0001 0000 000161"},
      {k_mqtt5, Unsubscribes({}), Type::UNSUBSCRIBE, "a203 0001 00"},
      {k_mqtt5, Stops({4, -1, "", "", {}}), Type::DISCONNECT, "e002 04 00"},
      {k_mqtt5, Stops({0, 0, "", "", {}}), Type::DISCONNECT, "e007 00 05 1100000000"},
  };
  for (const auto& [protocol, request, type, hex] : cases) {
    SCOPED_TRACE(hex);
    StartedSession session(protocol);
    EXPECT_EQ(request(session), kSuccess);
    EXPECT_EQ(session.broker.Await(type).hex(), Hex(Bytes(hex)));
  }
}

TEST(Wire, RequestsAreRefusedBeforeAnythingIsSent) {
  const std::tuple<Request, Result, const char*> cases[] = {
      {Publishes("", "hi", 1), kFailure, ""},
      {Publishes("a", Long(100'001), 0), kInvalidArgument,
       "max_publish buffer [100000] , requested buffer [100001]"},
      {Publishes(Long(31'068), Long(100'000), 1), kInvalidArgument,
       "k_max_tx_buf_ [131072] , requested buffer size [131073]"},
      {Subscribes({{"a", 1}}, 268'435'456), kFailure, "Invalid subscription_identifier [10000000]"},
      {Subscribes({{"", 1}}), kInvalidArgument, "No topic name for subscription"},
      {Subscribes({{Long(60'000), 1}, {Long(60'001), 1}, {Long(60'002), 1}}), kInvalidArgument,
       "max tx buf [131072] , requested size [180015]"},
      {Subscribes({{"a", 1}}, 0, k_huge), kInvalidArgument, ""},
      {Subscribes({{"a", 1}}, 0, {{"k", Long(65'536)}}), kInvalidArgument, ""},
      {Unsubscribes({"a"}, k_huge), kInvalidArgument, ""},
      {[pairs = k_huge](Session& session) mutable {
         return session.client.PublishResponse(Type::PUBACK, 1, 0, pairs);
       },
       kFailure, "user properties of ["},
      {[](Session& session) {
         MqttWrapper::DisconnectOption option{0, -1, "", Long(65'536), {}};
         return session.client.Disconnect(&option);
       },
       kInvalidArgument, "DISCONNECTED send failed"},
  };
  StartedSession session(k_mqtt5);
  for (const auto& [request, result, line] : cases) {
    const LogCapture log;
    EXPECT_EQ(request(session), result);
    EXPECT_TRUE(*line == '\0' || log.Contains(line)) << line;
    EXPECT_FALSE(log.Contains("Before send")) << line;
  }
  // The largest that are allowed still pass.
  EXPECT_EQ(Publishes(Long(31'067), Long(100'000), 1)(session), kSuccess);
  EXPECT_EQ(session.broker.Await(Type::PUBLISH).body().size(), 131'072U);
  EXPECT_EQ(Publishes(Long(65'535), "hi", 0)(session), kSuccess);
  EXPECT_TRUE(session.Healthy());
  EXPECT_EQ(session.broker.Count(Type::SUBSCRIBE) + session.broker.Count(Type::UNSUBSCRIBE), 0U);
  ASSERT_EQ(session.client.Disconnect(nullptr), kSuccess);
  EXPECT_EQ(session.Publish(0), kFailure);
}

TEST(Wire, StartsAreRefusedBeforeConnectIsSent) {
  const std::pair<Adapt, Result> cases[] = {
      {[](auto& option) { option.client_id = ""; }, kInvalidArgument},
      {[](auto& option) { option.client_id = Long(129); }, kInvalidArgument},
      {[](auto& option) { option.protocol = 3; }, kFailure},
      {[](auto& option) {
         option.user_name = option.password = option.lwt.msg.payload = Long(65'500);
         option.lwt.enable = true;
       },
       kFailure},
  };
  Session session(k_mqtt5);
  const auto good = session.option;
  for (const auto& [adapt, result] : cases) {
    session.option = good;
    adapt(session.option);
    EXPECT_EQ(session.Start(), result);
    EXPECT_NE(session.client.GetStatusInfo().status, 2);
  }
  session.option = good;
  session.option.client_id = Long(128);
  EXPECT_EQ(session.Start(), kSuccess);
  EXPECT_EQ(session.broker.Count(MsgType::CONNECT), 1U);
}

}  // namespace
}  // namespace zeb::test
