// Keep-alive where it is close: answers early, late, twice, unasked or none, and a device that was suspended.
#include <sstream>

#include "tests/session/session.h"
#include "tests/support/clock_offset.h"

namespace zeb::test {
namespace {

TEST(KeepAliveEdges, AHealthySessionLivesAndNoOtherDoes) {
  const struct {
    const char* name;
    const char*
        script;  // p: a ping, a: its answer, d: two answers at once, digits: a suspend of so many seconds
    bool lives;
  } cases[] = {
      {"an answer each", "p d000 p d000", true},
      {"both answers at once", "p p d000d000", true},
      {"the first answer serves both", "p p d000 11", true},
      {"the second is not the next ping's", "p p d000 p d000 d000", true},
      {"answered twice", "p d000d000 p d000", true},
      {"just in time", "p 9 d000", true},
      {"a second ping does not lengthen it", "p 6 p 6", false},
      {"too late", "p 11 d000", false},
      {"missing", "p 11", false},
      {"unasked, and then a ping", "d000 p", false},
      {"suspended between two pings", "p d000 3600 p d000", true},
      {"and nobody there afterwards", "p d000 3600 p 11", false},
  };
  for (const auto& [name, script, lives] : cases) {
    SCOPED_TRACE(name);
    std::atomic<bool> answers{false};
    const auto answer = [&](Connection& connection, const Packet& packet) {
      if (answers) ScriptedBroker::Answer(connection, packet);
    };
    Session session(k_mqtt311, {{MsgType::PINGREQ, answer}});
    ASSERT_EQ(session.Start(), kSuccess);
    size_t messages = 0;
    std::string step;
    for (std::istringstream steps(script); steps >> step;) {
      if (step == "p") {
        EXPECT_EQ(session.client.Ping(false), kSuccess);
      } else if (step[0] != 'd') {
        suspended_s += std::stoi(step);
        if (!steps.eof()) continue;  // what comes next is there at once
      }
      for (const std::string& bytes :
           {step[0] == 'd' ? step : "", std::string()}) {  // judged on the second pass
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

TEST(KeepAliveEdges, KeepAliveAndTimeoutMayBeTheLongerOne) {
  const struct {
    int keep_alive_s, timeout_s;
    size_t answered_at;  // each PINGREQ when so many have come in; 0: never
    int64_t suspend_s;   // before the first
  } cases[] = {{1, 1, 1, 0}, {1, 3, 2, 0}, {2, 1, 1, 0}, {2, 1, 0, 0}, {1, 1, 1, 3'600}, {1, 1, 0, 3'600}};
  for (const auto& [keep_alive_s, timeout_s, answered_at, suspend_s] : cases) {
    SCOPED_TRACE(testing::Message() << keep_alive_s << timeout_s << answered_at << suspend_s);
    size_t pings = 0;  // the broker's thread alone
    const auto answer = [&pings, at = answered_at](Connection& connection, const Packet& packet) {
      if (at != 0 && ++pings >= at) ScriptedBroker::Answer(connection, packet);
    };
    Session session(k_mqtt311, {{MsgType::PINGREQ, answer}}, timeout_s);
    session.option.keep_alive = keep_alive_s;
    ASSERT_EQ(session.Start(), kSuccess);
    suspended_s += suspend_s;
    if (answered_at == 0) {
      const double took = Seconds([&] { EXPECT_EQ(session.ends.Await(1), std::vector<int>{3}); });
      EXPECT_GT(took, keep_alive_s + timeout_s - 0.2);
      EXPECT_LT(took, keep_alive_s + 2 * timeout_s + 1.5);
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

}  // namespace
}  // namespace zeb::test
