// Starts, stops, deletes, lost connections and callbacks that meet: each caller gets what it is promised,
// nobody waits for itself, nothing stays open.
#include <sys/syscall.h>

#include <fstream>
#include <optional>

#include "tests/session/session.h"

namespace zeb::test {
namespace {

/// On a thread of its own.
struct Call {
  explicit Call(std::function<Result()> call)
      : result(std::async(std::launch::async, [this, call] {
          thread = static_cast<int>(::syscall(SYS_gettid));
          return call();
        })) {}
  /// Whether it has come to a wait, as the kernel sees it.
  [[nodiscard]] bool Waits() const {
    return Eventually([this] {
      std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
      std::string line;
      return std::getline(stat, line) && line.find(") S ") != std::string::npos;
    });
  }
  std::atomic<int> thread{-1};
  std::future<Result> result;
};

/// Whoever connects to it waits.
struct FullListener : Listener {
  FullListener() { ::listen(fd.get(), 0); }
  const std::unique_ptr<SocketClient> last = Connect(path);
};

/// Its message_cb stays inside until it is freed, and stops the client before or after.
struct HeldSession : Session {
  explicit HeldSession(bool stops_first) {
    option.message_cb = [this, stops_first, entered = entered, freed = freed](auto&) {
      EXPECT_TRUE(!stops_first || Stop() == kSuccess);
      EXPECT_LT(Seconds([&] { EXPECT_EQ(Start(), kAlreadyStarted); }), 5.0);
      entered.Push(0);
      (void)freed.Await(1);
      EXPECT_TRUE(stops_first || Stop() == kSuccess);
    };
    EXPECT_EQ(Start(), kSuccess);
    Send("3003000161");
    EXPECT_EQ(entered.Await(1).size(), 1U);
  }
  const Mailbox<int> entered, freed;
};

TEST(Start, OfManyAtOnceOneSucceeds) {
  for (int round = 0; round < 10; ++round) {
    Session session;
    std::list<Call> starts;
    std::map<Result, int> results;
    for (int i = 0; i < 8; ++i) starts.emplace_back([&session] { return session.Start(); });
    for (Call& start : starts) ++results[start.result.get()];
    EXPECT_EQ(results, (std::map<Result, int>{{kSuccess, 1}, {kAlreadyStarted, 7}}));
    EXPECT_TRUE(session.Healthy());
    EXPECT_EQ(session.broker.Count(MsgType::CONNECT), 1U);
  }
}

TEST(Start, ThatConnectsGivesUpAtOnceForStopsOrADelete) {
  const FullListener full;
  for (const size_t stops : {1U, 2U, 0U}) {
    SCOPED_TRACE(stops);
    Session session(k_mqtt311, {}, 600);
    auto hanging = session.option;
    hanging.port = full.port;
    Call start([&] { return session.client.StartClient(hanging, nullptr); });
    ASSERT_TRUE(start.Waits());
    EXPECT_EQ(session.Start(), kAlreadyStarted);
    const double took = Seconds([&] {
      if (stops == 0) session.owned.reset();
      std::list<Call> ends;
      while (ends.size() < stops) ends.emplace_back([&] { return session.Stop(); });
      for (Call& stop : ends) EXPECT_EQ(stop.result.get(), kSuccess);
      EXPECT_EQ(start.result.get(), kInvalidArgument);
    });
    EXPECT_LT(took, 8.0);
    if (stops == 0) continue;
    EXPECT_EQ(Peer::SocketFd(session.client), -1);
    EXPECT_EQ(Peer::Tag(session.client), "");
    EXPECT_EQ(session.Start(), kSuccess);
    EXPECT_TRUE(session.Healthy());
  }
}

TEST(Start, ThatAwaitsConnackFailsAtOnceForAStopInsideOrOutside) {
  for (const bool inside : {true, false}) {
    SCOPED_TRACE(inside);
    std::atomic<bool> good{false};
    const auto greet = [&](Connection& connection, const Packet& packet) {
      good ? ScriptedBroker::Answer(connection, packet) : connection.Send(Bytes(inside ? "3003000161" : ""));
    };
    Session session(k_mqtt311, {{MsgType::CONNECT, greet}}, 600);
    session.option.message_cb = [&](auto&) {
      EXPECT_EQ(session.Start(), kAlreadyStarted);
      EXPECT_EQ(session.Stop(), kSuccess);
    };
    Call start([&] { return session.Start(); });
    ASSERT_EQ(session.broker.Await(MsgType::CONNECT).type(), MsgType::CONNECT);
    const double took = Seconds([&] {
      EXPECT_TRUE(inside || session.Stop() == kSuccess);
      EXPECT_EQ(start.result.get(), kFailure);
    });
    EXPECT_LT(took, 8.0);
    EXPECT_EQ(Peer::SocketFd(session.client), -1);
    good = true;
    EXPECT_EQ(session.Start(), kSuccess);
    EXPECT_TRUE(session.Healthy());
    EXPECT_EQ(session.ends.Await(0).size() + session.broker.Count(MsgType::DISCONNECT), 0U);
  }
}

TEST(Start, ThatLosesItsConnectionFailsWhateverDisconnectCbDoes) {
  enum Deed { kNothing, kDelete, kStart, kRestart, kDeeds };
  for (int round = 0; round < 2 * kDeeds; ++round) {
    const int deed = round % kDeeds;
    SCOPED_TRACE(round);
    std::atomic<bool> good{false};
    const auto greet = [&](Connection& connection, const Packet& packet) {
      good.exchange(true) ? ScriptedBroker::Answer(connection, packet) : connection.Close();
    };
    Session session(k_mqtt311, {{MsgType::CONNECT, greet}});
    Mailbox<Result> results;
    session.option.disconnect_cb = [&session, deed, results](auto*, int) {
      if (deed == kDelete) session.owned.reset();
      EXPECT_TRUE(deed != kRestart || session.Stop() == kSuccess);
      results.Push(deed >= kStart ? session.Start() : kSuccess);
    };
    line_ms = round / kDeeds * 3;  // so that the start, in the end, comes late to its own tear-down
    EXPECT_EQ(session.Start(), kFailure);
    EXPECT_EQ(results.Await(1), std::vector<Result>{kSuccess});
    line_ms = 0;
    EXPECT_TRUE(deed < kStart || session.Healthy());
    EXPECT_TRUE(deed != kNothing || session.client.GetStatusInfo().status == 3);
  }
}

TEST(Start, IsNeverUpWithoutItsConnection) {
  for (int round = 0; round < 60; ++round) {
    const auto greet = [&](Connection& connection, const Packet& packet) {
      ScriptedBroker::Answer(connection, packet);
      connection.Close(round % 2 == 0);
    };
    Session session(k_mqtt311, {{MsgType::CONNECT, greet}});
    line_ms = round % 3;
    const Result result = session.Start();
    line_ms = 0;
    EXPECT_TRUE(result == kSuccess || result == kFailure) << result;
    EXPECT_EQ(session.ends.Await(1).size(), 1U);
    EXPECT_EQ(session.client.GetStatusInfo().status, 3);
    EXPECT_EQ(session.Publish(1), result == kSuccess ? kFailure : kNotConnected);
    EXPECT_TRUE(result != kSuccess || session.Start() == kAlreadyStarted);
    EXPECT_EQ(session.Stop(), kSuccess);
  }
}

TEST(Stop, ThatMessageCbHoldsUpIsTheOnlyOneAndIsWaitedForByAStart) {
  for (const bool inside : {true, false}) {
    SCOPED_TRACE(inside);
    HeldSession session(inside);
    std::optional<Call> stop;
    if (!inside) stop.emplace([&] { return session.Stop(); });
    ASSERT_TRUE(!stop || stop->Waits());
    const LogCapture log;
    EXPECT_LT(Seconds([&] { EXPECT_EQ(session.Stop(), kSuccess); }), 5.0);
    EXPECT_EQ(log.Count("Ignore StopClient as already stopping"), 1);
    auto hasty = session.option;
    hasty.timeout = 1;
    const double took =
        Seconds([&] { EXPECT_EQ(session.client.StartClient(hasty, nullptr), kAlreadyStarted); });
    EXPECT_TRUE(took > 0.9 && took < 5.0) << took;
    Call start([&] { return session.Start(); });
    ASSERT_TRUE(start.Waits());
    session.freed.Push(0);
    EXPECT_EQ(start.result.get(), kSuccess);
    EXPECT_TRUE(!stop || stop->result.get() == kSuccess);
    EXPECT_TRUE(session.Healthy());
    EXPECT_EQ(session.broker.Count(MsgType::DISCONNECT), 1U);
    for (int again = 0; again < 2; ++again) EXPECT_EQ(session.Stop(), kSuccess);
    EXPECT_EQ(log.Count("Client is already stopped"), 1);
    EXPECT_EQ(session.broker.Await(MsgType::DISCONNECT, 2).hex(), "e000");
    EXPECT_EQ(session.ends.Await(0).size(), 0U);
  }
}

TEST(Stop, InsideAndOutsideAtOnceIsOne) {
  Session session;
  session.option.message_cb = [&](auto&) { EXPECT_EQ(session.Stop(), kSuccess); };
  for (size_t round = 1; round <= 100; ++round) {
    ASSERT_EQ(session.Start(), kSuccess);
    session.Send("3003000161");
    if (round % 2 == 0) ::poll(nullptr, 0, 1);
    EXPECT_EQ(session.Stop(), kSuccess);
    EXPECT_EQ(session.broker.Await(MsgType::DISCONNECT, round).hex(), "e000");
  }
  EXPECT_EQ(session.Start(), kSuccess);
  EXPECT_TRUE(session.Healthy());
  EXPECT_EQ(session.broker.Count(MsgType::DISCONNECT), 100U);
}

TEST(Delete, WaitsForACallbackAStopAndAStartThatWaitsForIt) {
  enum Way { kNoStop, kInside, kOutside };
  for (const Way way : {kNoStop, kInside, kOutside}) {
    SCOPED_TRACE(way);
    HeldSession session(way == kInside);
    std::optional<Call> stop, start;
    if (way == kOutside) stop.emplace([&] { return session.Stop(); });
    ASSERT_TRUE(!stop || stop->Waits());
    if (way != kNoStop) start.emplace([&] { return session.Start(); });
    ASSERT_TRUE(!start || start->Waits());
    Call deletion([&] { return session.owned.reset(), kSuccess; });
    ASSERT_TRUE(deletion.Waits());
    session.freed.Push(0);
    EXPECT_TRUE(!stop || stop->result.get() == kSuccess);
    EXPECT_TRUE(!start || start->result.get() == kAlreadyStarted);
    EXPECT_EQ(deletion.result.get(), kSuccess);
  }
}

TEST(Delete, WaitsForAStopThatWaitsForAStart) {
  const FullListener full;
  Session session(k_mqtt311, {}, 600);
  session.option.port = full.port;
  Call start([&] { return session.Start(); });
  ASSERT_TRUE(start.Waits());
  line_ms = 500;  // the start, and then the stop, still have lines to write
  Call stop([&] { return session.Stop(); });
  ASSERT_TRUE(stop.Waits());
  session.owned.reset();
  const auto soon = std::chrono::milliseconds(400);
  EXPECT_EQ(stop.result.wait_for(soon), std::future_status::ready) << "the client has gone before it";
  line_ms = 0;
  EXPECT_EQ(stop.result.get(), kSuccess);
  EXPECT_EQ(start.result.get(), kInvalidArgument);
}

TEST(Callback, ThatAStartDestroysMayStopOrStartItsClient) {
  for (const bool stops : {true, false}) {
    SCOPED_TRACE(stops);
    Session session;
    Mailbox<Result> results;
    const auto last_act = [&](void*) { results.Push(stops ? session.Stop() : session.Start()); };
    session.option.message_cb = [captured = std::shared_ptr<void>(nullptr, last_act)](auto&) {};
    EXPECT_EQ(session.Start(), kSuccess);
    EXPECT_EQ(session.Stop(), kSuccess);
    session.option.message_cb = nullptr;
    EXPECT_EQ(results.Await(0).size(), 0U);
    EXPECT_EQ(session.Start() == kSuccess, !stops);
    EXPECT_EQ(results.Await(1), std::vector<Result>{stops ? kSuccess : kAlreadyStarted});
    EXPECT_TRUE(!stops || session.Start() == kSuccess);
    EXPECT_TRUE(session.Healthy());
  }
}

TEST(Callback, DisconnectCbMayOutlastItsSessionAndItsClient) {
  const Mailbox<int> entered, freed, left;
  Session session;
  session.option.disconnect_cb = [=](auto*, int reason) {
    entered.Push(reason);
    (void)freed.Await(1);
    left.Push(reason);
  };
  for (const size_t nth : {1U, 2U}) {
    ASSERT_EQ(session.Start(), kSuccess);
    EXPECT_TRUE(session.Healthy());
    session.broker.connection().Close();
    EXPECT_EQ(entered.Await(nth).size(), nth);
    EXPECT_TRUE(nth == 2 || session.Stop() == kSuccess);
  }
  session.owned.reset();
  EXPECT_EQ(left.Await(0).size(), 0U);
  freed.Push(0);
  EXPECT_EQ(left.Await(2), std::vector<int>({1, 1}));
}

}  // namespace
}  // namespace zeb::test
