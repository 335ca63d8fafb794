// PINGREQ out after silence, PINGRESP in, and what a missing or late answer does to the session.
#include "tests/session/session.h"

namespace zeb::test {
namespace {

constexpr int64_t k_second = 1'000'000;  // microseconds
constexpr char k_logic_error[] = "This is logic error please fix this one";

TEST(KeepAlive, PingsAfterSilenceWhichEverySendPostpones) {
  Session session(k_mqtt311, {}, 1);
  session.option.keep_alive = 1;
  ASSERT_EQ(session.Start(), kSuccess);
  const LogCapture log;
  const int64_t end_us = util::MonotonicUs() + 2'200'000;
  while (util::MonotonicUs() < end_us) ASSERT_EQ(session.Publish(1), kSuccess);
  EXPECT_EQ(session.broker.Count(MsgType::PINGREQ), 0U);
  EXPECT_GE(Seconds([&] { EXPECT_EQ(session.broker.Await(MsgType::PINGREQ).hex(), "c000"); }), 0.8);
  EXPECT_GE(Seconds([&] { EXPECT_EQ(session.broker.Await(MsgType::PINGREQ, 2).hex(), "c000"); }), 0.8);
  EXPECT_TRUE(log.WaitFor("Got PONG: ping_sent"));
  EXPECT_TRUE(session.Healthy());
}

TEST(KeepAlive, AMissingAnswerEndsTheSession) {
  for (const int timeout : {1, 2}) {  // with the longer one further pings go out before the first is late
    Session session(k_mqtt311, {{MsgType::PINGREQ, Ignore}}, timeout);
    session.option.keep_alive = 1;
    ASSERT_EQ(session.Start(), kSuccess);
    const LogCapture log;
    EXPECT_GE(Seconds([&] { EXPECT_EQ(session.ends.Await(1), std::vector<int>{3}); }), timeout + 0.8);
    EXPECT_TRUE(log.Contains("Cannot get PONGRESP message for " + std::to_string(timeout) + " seconds"));
    EXPECT_EQ(session.client.GetStatusInfo().status, 3);
    EXPECT_EQ(session.client.GetStatusInfo().dis_reason, 3);
  }
}

TEST(KeepAlive, JudgesTheAnswerByItsStamps) {
  // Sent and received so many microseconds ago (0: never); the verdict, its line, whether both are cleared.
  const std::tuple<int64_t, int64_t, Result, std::string, bool> cases[] = {
      {0, 0, kSuccess, "", true},
      {9 * k_second, 0, kSuccess, "", false},
      {11 * k_second, 0, kFailure, "Cannot get PONGRESP message for 10 seconds", false},
      {30 * k_second, 20 * k_second, kSuccess, "diff 10000000", true},
      {30 * k_second, 19 * k_second, kFailure,
       "Pong response came after 11000000 usec, thils should be come under 10000000 usec", true},
      {5 * k_second, 5 * k_second, kFailure, k_logic_error, false},
      {5 * k_second, 6 * k_second, kFailure, k_logic_error, false},
  };
  for (const auto& [sent, received, result, line, cleared] : cases) {
    SCOPED_TRACE(line);
    SelfMqttImpl client(nullptr);
    Peer::SetTimeout(client, 10);
    const int64_t now = util::BootTimeUs();
    Peer::SetStamps(client, {sent == 0 ? 0 : now - sent, received == 0 ? 0 : now - received});
    const LogCapture log;
    EXPECT_EQ(client.Pong(), result);
    EXPECT_EQ(log.Count(line), line.empty() ? 0 : 1);
    EXPECT_EQ(Peer::GetStamps(client) == Peer::Stamps(), cleared);
  }
}

TEST(KeepAlive, AnAnswerIsJudgedBeforeTheNextPingOverwritesIt) {
  StartedSession session(k_mqtt311, {{MsgType::PINGREQ, Ignore}});
  const LogCapture log;
  const int64_t now = util::BootTimeUs();
  Peer::SetStamps(session.client, {now - 2 * k_second, now - k_second});
  EXPECT_EQ(session.client.Ping(false), kSuccess);
  EXPECT_TRUE(log.Contains("diff 1000000"));
  EXPECT_EQ(Peer::GetStamps(session.client).second, 0);
  session.Send("3003000161 d000");
  EXPECT_EQ(session.payloads.Await(1).size(), 1U);
  EXPECT_EQ(session.client.GetStatusInfo().status, 2);
  EXPECT_FALSE(log.Contains(k_logic_error));
  Peer::SetStamps(session.client, {now - 12 * k_second, now});  // this one came too late
  session.Send("3003000161");
  EXPECT_EQ(session.ends.Await(1), std::vector<int>{3});
}

TEST(KeepAlive, PingsInShortOrderNeverEndAHealthySession) {
  StartedSession session;
  const LogCapture log;
  std::vector<std::future<void>> pingers;
  for (int i = 0; i < 4; ++i) {
    pingers.push_back(std::async(std::launch::async, [&session, i] {
      for (int ping = 0; ping < 50; ++ping) EXPECT_EQ(session.client.Ping(ping % 4 == i), kSuccess);
    }));
  }
  for (auto& each : pingers) each.get();
  EXPECT_TRUE(session.Healthy());
  EXPECT_FALSE(log.Contains(k_logic_error));
}

TEST(KeepAlive, APingThatGaveUpLeavesTheSessionButNotItsLateAnswer) {
  StartedSession session(k_mqtt311, {{MsgType::PINGREQ, Ignore}}, 1);
  const LogCapture log;
  auto ping = std::async(std::launch::async, [&] { return session.client.Ping(true); });
  while (!IsReady(ping)) ASSERT_EQ(session.Publish(1), kSuccess);  // each makes the receive thread judge
  EXPECT_EQ(ping.get(), kFailure);
  EXPECT_EQ(Peer::GetStamps(session.client).first, 0);
  EXPECT_EQ(session.Publish(1), kSuccess);
  EXPECT_EQ(session.client.GetStatusInfo().status, 2);
  EXPECT_EQ(session.client.GetStatusInfo().dis_reason, 0);
  session.Send("d000 3003000161");
  ASSERT_EQ(session.payloads.Await(1).size(), 1U);
  ASSERT_NE(Peer::GetStamps(session.client).second, 0);
  EXPECT_EQ(session.client.Ping(false), kSuccess);
  session.Send("3003000161");
  EXPECT_EQ(session.ends.Await(1), std::vector<int>{3});
  EXPECT_TRUE(log.Contains(k_logic_error));
}

}  // namespace
}  // namespace zeb::test
