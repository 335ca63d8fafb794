// Requests, pings and packets that meet a start, a stop or a lost connection: each answer reaches its own
// request, each request ends when it should, none is the reason for an end that was asked for.
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <ctime>
#include <set>

#include "tests/session/session.h"
#include "util/network_manager.h"

namespace zeb::test {
namespace {

using Results = std::vector<std::future<Result>>;

/// A broker that takes nothing after the first message, and whatever its connection lets through.
const std::map<MsgType, Handler> k_deaf = {{MsgType::PUBLISH, [](auto& peer, auto&) { peer.StopReading(); }}};

/// Publishes to it until the send queue keeps some or, without `room`, all that it can take.
Results FillSendQueue(Session& session, uint8_t qos, bool room) {
  EXPECT_EQ(session.Publish(0), kSuccess);
  EXPECT_EQ(session.broker.Await(MsgType::PUBLISH).qos(), 0);
  constexpr int k_message = 50'000;
  Results published;
  const int fd = Peer::SocketFd(session.client);
  int before = 0, unsent = 0;
  pollfd writable{fd, POLLOUT, 0};
  do {
    if (room ? unsent <= k_message : ::poll(&writable, 1, 0) == 1)
      published.push_back(std::async(
          std::launch::async, [&session, qos] { return session.Publish(qos, std::string(k_message, 'x')); }));
    before = unsent;
    ::poll(nullptr, 0, 50);
    EXPECT_EQ(::ioctl(fd, SIOCOUTQ, &unsent), 0);
  } while (unsent <= k_message || unsent != before);
  return published;
}

TEST(Stop, OfABrokerThatDoesNotReadTakesItsTimeOutAndNoPingFailsMeanwhile) {
  for (const bool room : {true, false}) {  // for DISCONNECT
    SCOPED_TRACE(room);
    Session session(k_mqtt311, k_deaf, 3);
    session.option.keep_alive = 1;
    ASSERT_EQ(session.Start(), kSuccess);
    const LogCapture log;
    const Results published = FillSendQueue(session, 0, room);
    const double took = Seconds([&] { EXPECT_EQ(session.Stop(), kSuccess); });
    EXPECT_TRUE(took > (room ? 2.9 : 1.0) && took < 9.0) << took;
    EXPECT_TRUE(log.Contains("Disconnect already called"));  // what the ping met
    EXPECT_EQ(session.client.GetStatusInfo().dis_reason, 0);
    EXPECT_EQ(session.ends.Await(0).size(), 0U);
  }
}

TEST(Stop, TakesAResetBehindItsDisconnectForTheEnd) {
  Session session(k_mqtt311,
                  {{MsgType::DISCONNECT, [](auto& connection, auto&) { connection.Close(true); }}});
  for (int round = 0; round < 10; ++round) {
    ASSERT_EQ(session.Start(), kSuccess);
    line_ms = round % 2 * 10;  // DISCONNECT is out long before the thread is told to end
    EXPECT_EQ(session.Stop(), kSuccess);
    line_ms = 0;
    EXPECT_EQ(session.client.GetStatusInfo().dis_reason, 0);
  }
  EXPECT_EQ(session.ends.Await(0).size(), 0U);
}

TEST(Request, OneOfTwoFailsAtOnceWhenItsSessionEndsAndOneAtItsTimeOut) {
  for (const bool stops : {true, false}) {
    SCOPED_TRACE(stops);
    StartedSession session(k_mqtt311, {{MsgType::PUBLISH, Ignore}}, 3);
    const LogCapture log;
    const double took = Seconds([&] {
      std::future<Result> published[] = {session.PublishAsync(1), session.PublishAsync(2)};
      ASSERT_TRUE(log.WaitFor("Before dequeue during", 2));
      stops ? (void)session.Stop() : session.broker.connection().Close();
      ASSERT_TRUE(Eventually([&] { return IsReady(published[0]) || IsReady(published[1]); }));
      EXPECT_NE(IsReady(published[0]), IsReady(published[1]));
      for (auto& each : published) EXPECT_EQ(each.get(), kFailure);
    });
    EXPECT_TRUE(took > 2.9 && took < 9.0) << took;
    EXPECT_EQ(log.Count("RESERVED comes in break loop"), 1);
  }
}

TEST(Request, ThatWaitsWhenAStartLosesItsConnectionDoesNotTakeItsEnd) {
  Session session(k_mqtt311, {{MsgType::CONNECT, Ignore}, {MsgType::PUBLISH, Ignore}}, 4);
  Results published;
  for (size_t round = 1; round <= 8; ++round) {
    const LogCapture log;
    auto start = std::async(std::launch::async, [&] { return session.Start(); });
    ASSERT_TRUE(Eventually([&] { return session.Publish(0) == kSuccess; }));  // CONNECT is out
    while (published.size() < 3 * round) published.push_back(session.PublishAsync(1));
    ASSERT_TRUE(log.WaitFor("Before dequeue during", 4));
    ASSERT_EQ(session.broker.Received(MsgType::PUBLISH, 4 * round).size(), 4 * round);
    session.broker.connection().Close();
    EXPECT_LT(Seconds([&] { EXPECT_EQ(start.get(), kFailure); }), 3.0);
    EXPECT_EQ(session.client.GetStatusInfo().status, 3);
  }
  for (auto& each : published) EXPECT_EQ(each.get(), kFailure);
}

TEST(Publish, SendsPubrelOnlyInTheSessionOfItsPublish) {
  std::set<const Connection*> known;  // the broker's thread alone
  const auto answer = [&](Connection& connection, const Packet& packet) {
    if (known.empty()) return (void)known.insert(&connection);  // the first is answered below
    if (packet.type() == MsgType::PUBLISH) known.insert(&connection);
    EXPECT_EQ(known.count(&connection), 1U);
    ScriptedBroker::Answer(connection, packet);
  };
  StartedSession session(k_mqtt311, {{MsgType::PUBLISH, answer}, {MsgType::PUBREL, answer}});
  const LogCapture log;
  auto old = session.PublishAsync(2);
  ASSERT_TRUE(log.WaitFor("Before dequeue during"));
  line_ms = 500;  // so that it has its PUBREC, but has not gone on
  session.Send("50020001");
  ASSERT_TRUE(log.WaitFor("Expected PUBREC and PUBREC comes in"));
  line_ms = 0;
  EXPECT_EQ(session.Stop(), kSuccess);
  EXPECT_EQ(session.Start(), kSuccess);
  (void)old.get();  // a slow machine may let it finish before the stop
  EXPECT_EQ(session.Publish(2), kSuccess);
  EXPECT_EQ(Hex(session.broker.Await(MsgType::PUBLISH, 2).id()), "0001");
  EXPECT_TRUE(session.Healthy());
}

TEST(Publish, ThatIsAnsweredSleepsWhileItCannotLeave) {
  StartedSession session(k_mqtt311, k_deaf, 2);
  Results published = FillSendQueue(session, 1, true);
  const std::clock_t cpu_before = std::clock();
  for (size_t id = 1; id <= published.size(); ++id)
    session.broker.connection().Send(Bytes("400200") + static_cast<char>(id));
  const double took = Seconds([&] {
    for (auto& each : published) EXPECT_EQ(each.get(), kSuccess);
  });
  EXPECT_GT(took, 1.0);
  EXPECT_LT(std::clock() - cpu_before, CLOCKS_PER_SEC * 3 / 10) << "it span";
}

TEST(Publish, ManyAnswersAtOnceBehindStraysAllArrive) {
  constexpr size_t k_requests = 400;
  std::string burst;  // the broker's thread alone, like the next
  size_t count = 0;
  const auto collect = [&](Connection& connection, const Packet& packet) {
    if (count == 0) {
      for (int stray = 0; stray < 300; ++stray) burst += Bytes("4002 f000 3003000161");
    }
    burst += Bytes("4002") + packet.id();
    if (++count == k_requests) connection.Send(burst);
  };
  StartedSession session(k_mqtt311, {{MsgType::PUBLISH, collect}}, 60);
  const LogMask mask(LOG_WARNING);
  Results published;
  while (published.size() < k_requests) published.push_back(session.PublishAsync(1));
  for (auto& each : published) EXPECT_EQ(each.get(), kSuccess);
}

TEST(Publish, Qos0SucceedsThoughThePeerClosesAtOnce) {
  const auto close = [](auto& connection, auto&) { connection.Close(); };
  Session session(k_mqtt311, {{MsgType::PUBLISH, close}});
  for (size_t round = 1; round <= 50; ++round) {
    ASSERT_EQ(session.Start(), kSuccess);
    EXPECT_EQ(session.Publish(0), kSuccess);
    EXPECT_EQ(session.ends.Await(round).size(), round);
    EXPECT_EQ(session.Stop(), kSuccess);
  }
}

TEST(Stream, APubrelFindsItsUnfinishedExchangeInTheNextSession) {
  StartedSession session(k_mqtt311, {{MsgType::PUBREC, Ignore}});
  session.Send("3405 000161 000a");
  EXPECT_EQ(session.broker.Await(MsgType::PUBREC).hex(), "5002000a");
  EXPECT_EQ(session.Stop(), kSuccess);
  EXPECT_EQ(session.Start(), kSuccess);
  session.Send("6202000a");
  EXPECT_EQ(session.broker.Await(MsgType::PUBCOMP).hex(), "7002000a");
  EXPECT_TRUE(session.Healthy());
}

TEST(Stop, EndsAPingThatWaitsAndTheReceiveThreadsBehindIt) {
  Session session(k_mqtt311, {{MsgType::PINGREQ, Ignore}}, 600);
  session.option.keep_alive = 1;
  ASSERT_EQ(session.Start(), kSuccess);
  auto ping = std::async(std::launch::async, [&] { return session.client.Ping(true); });
  ASSERT_EQ(session.broker.Await(MsgType::PINGREQ).hex(), "c000");
  size_t sent = 0;
  do {  // until the thread waits for its turn to ping and takes nothing more
    session.Send("3003000161");
    ::poll(nullptr, 0, 300);
  } while (session.payloads.Await(0).size() == ++sent);
  EXPECT_LT(Seconds([&] { EXPECT_EQ(session.Stop(), kSuccess); }), 8.0);
  EXPECT_EQ(ping.get(), kFailure);
  EXPECT_EQ(session.ends.Await(0).size(), 0U);
}

TEST(KeepAlive, HasNothingToDoBeforeConnectIsOut) {
  Session session(k_mqtt311, {}, 60);
  session.option.keep_alive = 1;
  line_ms = 300;  // six lines and more before CONNECT
  EXPECT_EQ(session.Start(), kSuccess);
  line_ms = 0;
  EXPECT_TRUE(session.Healthy());
}

TEST(End, IsNotMissedWhileTheReceiveThreadSetsItselfUp) {
  util::EventDic lost(util::EventDic::k_address_lost);
  lost.SetParam(util::EventDic::k_ip_version, "4");
  for (int round = 0; round < 30; ++round) {
    Session session;
    const LogCapture log;
    std::atomic<bool> deleted{false};
    auto network = std::async(std::launch::async, [&] {
      for (; !log.Contains("Before write diconnect event");) util::NetworkManager::RaiseEvent(lost);
      EXPECT_EQ(session.ends.Await(1), std::vector<int>{2});
    });
    (void)session.Start();  // it may be over before CONNACK comes in, or after
    network.get();
    EXPECT_EQ(session.client.GetStatusInfo().status, 3);
    (void)session.Stop();
    EXPECT_EQ(session.Start(), kSuccess);
    network = std::async(std::launch::async, [&] {
      while (!deleted) util::NetworkManager::RaiseEvent(lost);
    });
    session.owned.reset();
    deleted = true;
  }
}

TEST(Request, IsChargedForASuspendOnlyByAnEventOfAnotherType) {
  for (const bool other : {true, false}) {
    StartedSession session(k_mqtt311, {{MsgType::PUBLISH, Ignore}});
    const LogCapture log;
    auto published = session.PublishAsync(1);
    ASSERT_TRUE(log.WaitFor("Before dequeue during"));
    suspended_s += 60;
    session.Send(other ? "3003000161 40020001" : "4002f000 40020001");
    EXPECT_EQ(published.get(), other ? kFailure : kSuccess);
  }
  suspended_s = 0;
}

}  // namespace
}  // namespace zeb::test
