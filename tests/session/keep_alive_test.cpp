// PINGREQ out after silence, PINGRESP in: early, late, twice, unasked or never, also on a device that was
// suspended, and what becomes of the session.
#include <optional>
#include <sstream>
#include <utility>

#include "tests/session/session.h"

namespace zeb::test {
namespace {

constexpr int64_t k_second = 1'000'000;  // microseconds
constexpr char k_logic_error[] = "This is logic error please fix this one";

TEST(KeepAlive, AHealthySessionLivesAndNoOtherDoes) {
  const struct {
    const char* name;
    const char* script;  // p: a ping, digits: a suspend of so many seconds, d000: an answer
    bool lives;
  } cases[] = {
      {"an answer each", "p d000 p d000", true},
      {"both answers at once", "p p d000d000", true},
      {"the first answer serves both", "p p d000 110", true},
      {"the second is not the next ping's", "p p d000 p d000 d000", true},
      {"answered twice", "p d000d000 p d000", true},
      {"just in time", "p 90 d000", true},
      {"a second ping does not lengthen it", "p 60 p 60", false},
      {"too late", "p 110 d000", false},
      {"missing", "p 110", false},
      {"unasked, and then a ping", "d000 p", false},
      {"suspended between two pings", "p d000 3600 p d000", true},
      {"and nobody there afterwards", "p d000 3600 p 110", false},
  };
  for (const auto& [name, script, lives] : cases) {
    SCOPED_TRACE(name);
    std::atomic<bool> answers{false};
    const auto answer = [&](Connection& connection, const Packet& packet) {
      if (answers) ScriptedBroker::Answer(connection, packet);
    };
    StartedSession session(k_mqtt311, {{MsgType::PINGREQ, answer}}, 100);
    size_t messages = 0;
    std::string step;
    for (std::istringstream steps(script); steps >> step;) {
      if (step == "p") {
        EXPECT_EQ(session.client.Ping(false), kSuccess);
      } else if (step[0] != 'd') {
        suspended_s += std::stoi(step);
        if (!steps.eof()) continue;  // what comes next is there at once
      }
      for (const auto& bytes : {step[0] == 'd' ? step : "", std::string()}) {  // judged on the second pass
        session.Send(bytes + "3003000161");
        ++messages;
        EXPECT_TRUE((steps.eof() && !lives) || session.payloads.Await(messages).size() == messages);
      }
    }
    answers = true;
    EXPECT_EQ(lives && session.Healthy(), lives);
    EXPECT_EQ(session.ends.Await(lives ? 0 : 1), std::vector<int>(lives ? 0 : 1, 3));
  }
  suspended_s = 0;
}

TEST(KeepAlive, PingsAfterSilenceAndEndsTheSessionWithoutAnAnswer) {
  const struct {
    int keep_alive_s, timeout_s;  // either may be the longer one
    size_t answered_at;           // each PINGREQ when so many have come in; 0: never
    int64_t suspend_s;            // before the first
  } cases[] = {{1, 6, 2, 0}, {3, 2, 1, 0}, {1, 2, 0, 0}, {2, 1, 0, 0}, {1, 4, 1, 3'600}, {1, 1, 0, 3'600}};
  for (const auto& [keep_alive_s, timeout_s, answered_at, suspend_s] : cases) {
    SCOPED_TRACE(testing::Message() << keep_alive_s << timeout_s << answered_at << suspend_s);
    size_t pings = 0;  // the broker's thread alone
    const auto answer = [&pings, at = answered_at](Connection& connection, const Packet& packet) {
      if (at != 0 && ++pings >= at) ScriptedBroker::Answer(connection, packet);
    };
    const LogCapture log;
    Session session(k_mqtt311, {{MsgType::PINGREQ, answer}}, timeout_s);
    session.option.keep_alive = keep_alive_s;
    ASSERT_EQ(session.Start(), kSuccess);
    suspended_s += suspend_s;
    if (answered_at == 0) {
      const double took = Seconds([&] { EXPECT_EQ(session.ends.Await(1), std::vector<int>{3}); });
      EXPECT_GT(took, keep_alive_s + timeout_s - 0.2);
      EXPECT_LT(took, keep_alive_s + 2 * timeout_s + 5);
      EXPECT_TRUE(log.Contains("Cannot get PONGRESP message for " + std::to_string(timeout_s) + " seconds"));
      EXPECT_EQ(session.client.GetStatusInfo().dis_reason, 3);
      continue;
    }
    for (size_t ping = 1; ping <= 2; ++ping) {  // a publish whenever a ping is due
      ASSERT_EQ(session.broker.Await(MsgType::PINGREQ, ping).hex(), "c000");
      EXPECT_EQ(session.Publish(1), kSuccess);
    }
    EXPECT_EQ(session.ends.Await(0).size(), 0U);
    EXPECT_EQ(session.client.GetStatusInfo().status, 2);
  }
  suspended_s = 0;
}

// Starts and publishes without a break. Returns when the last packet began; nothing when the machine stalled
// for so long that a ping was due.
std::optional<int64_t> StartAndPublish(Session& session, int64_t busy_us) {
  int64_t last_us = util::BootTimeUs();
  EXPECT_EQ(session.Start(), kSuccess);
  for (const int64_t end_us = util::BootTimeUs() + busy_us; last_us < end_us;) {
    const int64_t before_us = std::exchange(last_us, util::BootTimeUs());
    EXPECT_EQ(session.Publish(1), kSuccess);
    if (util::BootTimeUs() - before_us >= k_second) return {};
  }
  return last_us;
}

TEST(KeepAlive, EverySendPostponesThePing) {
  // Without the lines in debug the timer is set once in 100 ms: the last sends find it as the first left it.
  const std::pair<int, int64_t> cases[] = {{LOG_DEBUG, 2 * k_second}, {LOG_WARNING, k_second / 11}};
  for (const auto& [lines, busy_us] : cases) {
    SCOPED_TRACE(lines);
    const LogMask mask(lines);
    std::optional<int64_t> last_us;
    for (int attempt = 0; attempt < 5 && !last_us; ++attempt) {
      Session session;
      session.option.keep_alive = 1;
      last_us = StartAndPublish(session, busy_us);
      if (!last_us) continue;
      for (const size_t nth : {1U, 2U}) {
        EXPECT_EQ(session.broker.Await(MsgType::PINGREQ, nth).hex(), "c000");
        EXPECT_GE(util::BootTimeUs() - *last_us, static_cast<int64_t>(nth) * k_second);
      }
      EXPECT_TRUE(session.Healthy());
    }
    EXPECT_TRUE(last_us) << "no attempt without a stall";
  }
}

TEST(KeepAlive, JudgesTheAnswerByItsStamps) {
  // Sent and received so many microseconds ago; the verdict, its line, whether both are cleared.
  const std::tuple<int64_t, int64_t, Result, std::string, bool> cases[] = {
      {30 * k_second, 20 * k_second, kSuccess, "diff 10000000", true},
      {30 * k_second, 19 * k_second, kFailure,
       "Pong response came after 11000000 usec, thils should be come under 10000000 usec", true},
      {5 * k_second, 5 * k_second, kFailure, k_logic_error, false},
  };
  for (const auto& [sent, received, result, line, cleared] : cases) {
    StartedSession session(k_mqtt311, {{MsgType::PINGREQ, Ignore}});
    const int64_t now = util::BootTimeUs();
    const Peer::Stamps stamps{now - sent, now - received};
    for (const bool by_ping : {false, true}) {  // the next ping judges, too, before it overwrites them
      Peer::SetStamps(session.client, stamps);
      const LogCapture log;
      EXPECT_EQ(by_ping ? session.client.Ping(false) : session.client.Pong(), by_ping ? kSuccess : result);
      EXPECT_EQ(log.Count(line), by_ping && !cleared ? 0 : 1) << line;
      EXPECT_EQ(Peer::GetStamps(session.client).second == 0, cleared);
    }
    session.Send("3003000161");
    const size_t ended = result == kSuccess ? 0 : 1;
    EXPECT_EQ(session.payloads.Await(1 - ended).size() + session.ends.Await(ended).size(), 1U);
  }
}

TEST(KeepAlive, APingThatGaveUpLeavesTheSessionButNotItsLateAnswer) {
  StartedSession session(k_mqtt311, {{MsgType::PINGREQ, Ignore}}, 1);
  const LogCapture log;
  auto ping = std::async(std::launch::async, [&] { return session.client.Ping(true); });
  while (!IsReady(ping)) ASSERT_EQ(session.Publish(1), kSuccess);  // each makes the receive thread judge
  EXPECT_EQ(ping.get(), kFailure);
  EXPECT_EQ(Peer::GetStamps(session.client).first, 0);
  EXPECT_EQ(session.Publish(1), kSuccess);
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
