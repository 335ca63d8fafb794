// Two clients on a real broker, in both versions, plain and over TLS. What tests/tools shows of retained
// messages and wills is not repeated.
#include "tests/session/mosquitto.h"

namespace zeb::test {
namespace {

void ExchangeMessages(const Mosquitto& broker, int32_t protocol) {
  Session subscriber(protocol), publisher(protocol);
  for (Session* const member : {&subscriber, &publisher}) {
    broker.LeadHere(member->option);
    ASSERT_EQ(member->Start(), kSuccess);
  }
  std::vector<std::string> expected;
  for (uint8_t qos = 0; qos <= 2; ++qos) {
    MqttWrapper::SubscribeOption subscribe{{{"a/b", qos}}, 0, {}};
    MqttWrapper::SubscriptionAck ack;
    ASSERT_EQ(subscriber.client.Subscribe(subscribe, &ack), kSuccess);
    EXPECT_EQ(ack.reason_code, qos);
    for (const auto& payload : {std::string(), std::string("\0\xFF\n", 3), std::string(100'000, 'x')}) {
      ASSERT_EQ(publisher.Publish(qos, payload), kSuccess);
      expected.push_back(payload);
      ASSERT_TRUE(subscriber.payloads.Await(expected.size()) == expected) << static_cast<int>(qos);
    }
  }
  MqttWrapper::UnsubscribeOption unsubscribe{{"a/b"}, {}};
  ASSERT_EQ(subscriber.client.Unsubscribe(unsubscribe, nullptr), kSuccess);
  ASSERT_EQ(publisher.Publish(1, "not any more"), kSuccess);
  EXPECT_TRUE(subscriber.Healthy());
  EXPECT_EQ(subscriber.Stop(), kSuccess);
  EXPECT_TRUE(subscriber.payloads.Await(0) == expected);
}

TEST(Mosquitto, PassesEveryQosOnceAndWhole) {
  for (const bool tls : {false, true}) {
    const Mosquitto broker(tls);
    for (const int32_t protocol : {k_mqtt311, k_mqtt5}) ExchangeMessages(broker, protocol);
  }
}

}  // namespace
}  // namespace zeb::test
