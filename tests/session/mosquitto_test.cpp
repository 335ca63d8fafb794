// Two clients on a real broker, in both versions, plain and over TLS.
#include "tests/session/mosquitto.h"

namespace zeb::test {
namespace {

int Subscribe(Session& session, const char* filter, uint8_t qos) {
  MqttWrapper::SubscribeOption subscribe{{{filter, qos}}, 0, {}};
  MqttWrapper::SubscriptionAck ack;
  return session.client.Subscribe(subscribe, &ack) == kSuccess ? ack.reason_code : -1;
}

void ExchangeMessages(const Mosquitto& broker, int32_t protocol) {
  Session subscriber(protocol);
  auto publisher = std::make_unique<Session>(protocol);
  for (Session* const member : {&subscriber, publisher.get()}) {
    broker.LeadHere(member->option);
    member->option.lwt.enable = true;
    member->option.lwt.msg = Message("a/will", "of a lost client", 1);
    ASSERT_EQ(member->Start(), kSuccess);
  }
  std::vector<std::string> expected;
  for (uint8_t qos = 0; qos <= 2; ++qos) {
    ASSERT_EQ(Subscribe(subscriber, "a/b", qos), qos);
    for (const auto& payload : {std::string(), std::string("\0\xFF\n", 3), std::string(100'000, 'x')}) {
      ASSERT_EQ(publisher->Publish(qos, payload), kSuccess);
      expected.push_back(payload);
      ASSERT_TRUE(subscriber.payloads.Await(expected.size()) == expected) << static_cast<int>(qos);
    }
  }
  MqttWrapper::UnsubscribeOption unsubscribe{{"a/b"}, {}};
  ASSERT_EQ(subscriber.client.Unsubscribe(unsubscribe, nullptr), kSuccess);
  ASSERT_EQ(publisher->Publish(1, "not any more"), kSuccess);
  auto kept = Message("a/kept", "kept", 1, true);
  ASSERT_EQ(publisher->client.Publish(kept), kSuccess);
  ASSERT_EQ(Subscribe(subscriber, "a/+", 2), 2);
  expected.emplace_back("kept");
  EXPECT_TRUE(subscriber.payloads.Await(expected.size()) == expected);
  EXPECT_EQ(publisher->Stop(), kSuccess);  // nobody hears of this one
  ASSERT_EQ(publisher->Start(), kSuccess);
  publisher.reset();  // without DISCONNECT
  expected.emplace_back("of a lost client");
  EXPECT_TRUE(subscriber.payloads.Await(expected.size()) == expected);
  EXPECT_TRUE(subscriber.Healthy());
  EXPECT_EQ(subscriber.Stop(), kSuccess);
  EXPECT_TRUE(subscriber.payloads.Await(0) == expected);
  EXPECT_EQ(subscriber.ends.Await(0).size(), 0U);
}

TEST(Mosquitto, PassesEveryQosOnceAndWholeRetainedMessagesAndWills) {
  for (const bool tls : {false, true}) {
    const Mosquitto broker(tls);
    for (const int32_t protocol : {k_mqtt311, k_mqtt5}) ExchangeMessages(broker, protocol);
  }
}

}  // namespace
}  // namespace zeb::test
