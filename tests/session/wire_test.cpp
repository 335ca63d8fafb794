// What goes out on the wire, byte by byte, and what is refused before a byte goes out.
#include "tests/session/session.h"

namespace zeb::test {
namespace {

using Pair = MqttWrapper::PairedString;
using Type = MsgType;
using Adapt = std::function<void(MqttWrapper::ConnectOption&)>;
using Request = std::function<Result(Session&)>;

std::string Long(size_t size) { return std::string(size, 'x'); }
const std::list<Pair> k_properties = {{"", "v"}, {"k", "v"}, {"k", ""}};  // one of which is whole
const std::list<Pair> k_huge(3, {"k", Long(65'000)});
constexpr char k_qos2[] = "3406 000161 0007 00";

void AdaptEverything(MqttWrapper::ConnectOption& option) {
  option.clean_session = false;
  option.user_name = "u";
  option.password = "p";
  option.session_expiry_interval = 5;
  option.receive_maximum = 10;
  option.topic_alias_maximum = 3;
  option.request_response_information = 1;
  option.request_problem_information = 0;
  option.user_property = k_properties;
  option.lwt.enable = true;
  option.lwt.msg = Message("w", std::string("x\0y", 3), 3, true);
  option.lwt.properties.will_delay_interval = 1;
  option.lwt.properties.payload_format_indicator = 1;
  option.lwt.properties.message_expiry_interval = 2;
  option.lwt.properties.content_type = "ct";
  option.lwt.properties.response_topic = "rt";
}

TEST(Wire, Connect) {
  const Adapt with_will = [](auto& option) { option.lwt.enable = true; };
  const std::tuple<int32_t, Adapt, const char*> cases[] = {
      {k_mqtt311, [](auto&) {}, "1010 00044d515454 04 02 003c 000464657631"},
      {k_mqtt5, [](auto&) {}, "1016 00044d515454 05 02 003c 05 2700020000 000464657631"},
      {k_mqtt311, [](auto& option) { option.password = "p"; },
       "1013 00044d515454 04 42 003c 000464657631 000170"},
      {k_mqtt311, with_will, "1014 00044d515454 04 0e 003c 000464657631 0000 0000"},
      {k_mqtt5, with_will, "101b 00044d515454 05 0e 003c 05 2700020000 000464657631 00 0000 0000"},
      {k_mqtt5, AdaptEverything,
       "1051 00044d515454 05 fc 003c 1b 1100000005 21000a 2700020000 220003 1901 1700 26 00016b 000176"
       "000464657631 16 1800000001 0101 0200000002 0300026374 0800027274 000177 0003780079 000175 000170"},
  };
  for (const auto& [protocol, adapt, hex] : cases) {
    SCOPED_TRACE(hex);
    Session session(protocol);
    session.option.client_id = "dev1";
    session.option.keep_alive = 60;
    adapt(session.option);
    ASSERT_EQ(session.Start(), kSuccess);
    EXPECT_EQ(session.broker.Await(MsgType::CONNECT).hex(), Hex(Bytes(hex)));
    EXPECT_EQ(session.option.maximum_packet_size, protocol == k_mqtt5 ? 131'072 : -1);
  }
}

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
    const Result result = session.client.Subscribe(option, nullptr);
    for (const auto& topic : option.topics) EXPECT_LE(topic.second, 2) << "left in the caller's map";
    return result;
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

// Its user properties in the acknowledgement of the packet that the broker sends.
using Setter = Result (SelfMqttImpl::*)(std::list<Pair>&);
constexpr Setter k_puback = &SelfMqttImpl::SetPubAckUserProperties,
                 k_pubrec = &SelfMqttImpl::SetPubRecUserProperties,
                 k_pubcomp = &SelfMqttImpl::SetPubCompUserProperties;
Request Answers(Setter setter, std::list<Pair> properties, const char* publish) {
  return [=](Session& session) mutable {
    session.Send("62020009");  // of a message that never came: no answer
    EXPECT_TRUE(session.Healthy());
    const Result result = (session.client.*setter)(properties);
    session.Send(publish);
    return result;
  };
}

TEST(Wire, Requests) {
  const std::tuple<int32_t, Request, MsgType, const char*> cases[] = {
      {k_mqtt311, Publishes("a/b", "hi", 0), Type::PUBLISH, "3007 0003612f62 6869"},
      {k_mqtt311, Publishes({"a\0b", 3}, "", 0), Type::PUBLISH, "3005 0003 610000"},  // ends at its first NUL
      {k_mqtt311, Publishes("a/b", "", 1), Type::PUBLISH, "3207 0003612f62 0001"},
      {k_mqtt5, Publishes("a/b", "hi", 1), Type::PUBLISH, "320a 0003612f62 0001 00 6869"},
      {k_mqtt311, Publishes("a/b", "hi", 2, true), Type::PUBLISH, "3d09 0003612f62 0001 6869"},
      {k_mqtt311, Publishes("a/b", "hi", 5), Type::PUBREL, "6202 0001"},
      {k_mqtt5, Publishes("a/b", "hi", 2), Type::PUBREL, "6204 0001 00 00"},
      {k_mqtt311, Subscribes({{"b", 0}, {"a", 7}}), Type::SUBSCRIBE, "820a 0001 00016102 00016200"},
      {k_mqtt311, Subscribes({}), Type::SUBSCRIBE, "8202 0001"},
      {k_mqtt5, Subscribes({{"a", 1}}), Type::SUBSCRIBE, "8207 0001 00 00016101"},
      {k_mqtt5, Subscribes({{"a", 1}}, 268'435'455, k_properties), Type::SUBSCRIBE,
       "8213 0001 0c 0bffffff7f 26 00016b 000176 00016101"},
      {k_mqtt311, Unsubscribes({"", "a"}), Type::UNSUBSCRIBE, "a207 0001 0000 000161"},
      {k_mqtt5, Unsubscribes({}), Type::UNSUBSCRIBE, "a203 0001 00"},
      {k_mqtt5, Unsubscribes({"a"}, k_properties), Type::UNSUBSCRIBE, "a20d 0001 07 26 00016b 000176 000161"},
      {k_mqtt311, Stops({4, 0, "s", "r", k_properties}), Type::DISCONNECT, "e000"},
      {k_mqtt5, Stops({}), Type::DISCONNECT, "e000"},
      {k_mqtt5, Stops({4, -1, "", "", {}}), Type::DISCONNECT, "e002 04 00"},
      {k_mqtt5, Stops({0, 0, "", "", {}}), Type::DISCONNECT, "e007 00 05 1100000000"},
      {k_mqtt5, Stops({0x9C, 1, "s", "r", k_properties}), Type::DISCONNECT,
       "e016 9c 14 1100000001 1c000173 1f000172 26 00016b 000176"},
      {k_mqtt311, Answers(k_pubrec, k_properties, k_qos2), Type::PUBREC, "5002 0007"},
      {k_mqtt5, Answers(k_puback, k_properties, "3206 000161 0007 00"), Type::PUBACK,
       "400b 0007 00 07 26 00016b 000176"},
      {k_mqtt5, Answers(k_pubrec, k_properties, k_qos2), Type::PUBREC, "500b 0007 00 07 26 00016b 000176"},
      {k_mqtt5, Answers(k_pubcomp, k_properties, k_qos2), Type::PUBCOMP, "700b 0007 00 07 26 00016b 000176"},
      // What does not fit is not sent at all.
      {k_mqtt5, Answers(k_pubrec, k_huge, k_qos2), Type::PUBREC, ""},
      {k_mqtt5, Answers(k_pubrec, {{"k", Long(65'536)}}, k_qos2), Type::PUBREC, ""},
  };
  for (const auto& [protocol, request, type, hex] : cases) {
    SCOPED_TRACE(hex);
    StartedSession session(protocol);
    EXPECT_EQ(request(session), kSuccess);
    const size_t wanted = *hex == '\0' ? 0 : 1;
    EXPECT_TRUE(wanted == 1 || session.Healthy());
    const auto received = session.broker.Received(type, wanted);
    EXPECT_EQ(received.empty() ? "" : received[0].hex(), Hex(Bytes(hex)));
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
      {Unsubscribes({"a"}, k_huge), kInvalidArgument, ""},
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
