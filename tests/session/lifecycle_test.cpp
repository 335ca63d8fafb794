// Starts, stops, ends and callbacks, in every order and from every thread; nothing is left behind.
#include <fcntl.h>
#include <signal.h>

#include <set>
#include <stdexcept>

#include "tests/session/session.h"
#include "util/network_manager.h"
#include "util/psm_manager.h"

namespace zeb::test {
namespace {

std::set<int> Descriptors() {
  std::set<int> open;
  for (int fd = 0; fd < 1'024; ++fd)
    if (::fcntl(fd, F_GETFD) != -1) open.insert(fd);
  return open;
}

void RaiseAddressLost(int32_t type, const char* ip_version) {
  util::EventDic event(type);
  event.SetParam(util::EventDic::k_ip_version, ip_version);
  util::NetworkManager::RaiseEvent(event);
}

TEST(End, TellsWhyTheConnectionEnded) {
  const std::tuple<const char*, int32_t, std::function<void(Session&)>, int, int> cases[] = {
      {"closed", k_mqtt311, [](Session& session) { session.broker.connection().Close(); }, 1, 0},
      {"reset", k_mqtt311, [](Session& session) { session.broker.connection().Close(true); }, 2, 0},
      {"broker's DISCONNECT", k_mqtt5, [](Session& session) { session.Send("e00187"); }, 2, 0x87},
      {"network lost", k_mqtt311, [](Session&) { RaiseAddressLost(260, "4"); }, 2, 0},
      {"lost twice inside message_cb", k_mqtt311, [](Session& session) { session.Send("3003000161"); }, 2, 0},
  };
  for (const auto& [name, protocol, end, dis_reason, reason_code] : cases) {
    SCOPED_TRACE(name);
    Session session(protocol);
    session.option.message_cb = [](auto&) {  // before either can be read
      for (int i = 0; i < 2; ++i) RaiseAddressLost(260, "4");
    };
    EXPECT_EQ(session.Publish(0), kNotConnected);
    ASSERT_EQ(session.Start(), kSuccess);
    RaiseAddressLost(260, "6");  // of no concern, like the next
    RaiseAddressLost(259, "4");
    EXPECT_TRUE(session.Healthy());
    end(session);
    EXPECT_EQ(session.ends.Await(1), std::vector<int>{dis_reason});
    const auto info = session.client.GetStatusInfo();
    EXPECT_EQ(info.status, 3);
    EXPECT_EQ(info.dis_reason, protocol == k_mqtt5 ? 0 : dis_reason);
    EXPECT_EQ(info.reason_code, reason_code);
    EXPECT_EQ(session.Publish(0), kFailure);  // ended, but not stopped
    EXPECT_EQ(session.Start(), kAlreadyStarted);
    EXPECT_EQ(session.Stop(), kSuccess);
    EXPECT_EQ(session.Publish(0), kNotConnected);
    RaiseAddressLost(260, "4");  // nobody is registered
    EXPECT_EQ(session.Start(), kSuccess);
    EXPECT_TRUE(session.Healthy());
    EXPECT_EQ(session.ends.Await(1).size(), 1U);
  }
}

TEST(Start, FailsWithoutAGoodConnack) {
  const std::tuple<Handler, int, const char*, int> cases[] = {
      {[](auto& connection, auto&) { connection.Close(); }, 10, "RESERVED comes in break loop", 0xFFFF},
      {Ignore, 3, "Cannot get CONNACK event for 3 seconds", 0xFFFF},
      {Reply("2003008700"), 10, "CONNACK reason_code NOT_AUTHORIZED", 0x87},
  };
  for (const auto& [handler, timeout_s, line, reason_code] : cases) {
    Session* self = nullptr;
    const auto connect = [&self, answer = handler](Connection& connection, const Packet& packet) {
      EXPECT_EQ(self->Start(), kAlreadyStarted);  // of two at once one wins
      answer(connection, packet);
    };
    Session session(k_mqtt5, {{MsgType::CONNECT, connect}}, timeout_s);
    self = &session;
    MqttWrapper::ConnectAck ack;
    const LogCapture log;
    EXPECT_LT(Seconds([&] { EXPECT_EQ(session.client.StartClient(session.option, &ack), kFailure); }), 8.0);
    EXPECT_TRUE(log.Contains(line)) << line;
    EXPECT_EQ(ack.reason_code, reason_code);
    EXPECT_EQ(Peer::SocketFd(session.client), -1);
  }
}

TEST(Start, LetsNothingGoOutBeforeConnectOrBehindDisconnect) {
  std::set<const Connection*> greeted;  // the broker's thread alone
  const auto judge = [&](Connection& connection, const Packet& packet) {
    if (packet.type() == MsgType::CONNECT) greeted.insert(&connection);
    EXPECT_EQ(greeted.count(&connection), 1U);
    if (packet.type() == MsgType::DISCONNECT) greeted.erase(&connection);
    ScriptedBroker::Answer(connection, packet);
  };
  Session session(k_mqtt311,
                  {{MsgType::CONNECT, judge}, {MsgType::PUBLISH, judge}, {MsgType::DISCONNECT, judge}});
  std::atomic<bool> done{false};
  const auto publisher = std::async(std::launch::async, [&] {
    while (!done) (void)session.Publish(0);  // mostly refused
  });
  for (int round = 0; round < 150; ++round) {
    EXPECT_EQ(session.Start(), kSuccess);
    EXPECT_EQ(session.Stop(), kSuccess);
    EXPECT_EQ(session.client.StopRecvThread(), kNotStarted);
    EXPECT_EQ(Peer::SocketFd(session.client), -1);
  }
  done = true;
}

TEST(Stop, InsideMessageCbSendsDisconnectAndMayMeetAStart) {
  Session session;
  Mailbox<Result> stops;
  session.option.message_cb = [&](MqttWrapper::PublishMessage&) {
    const std::string tag = Peer::Tag(session.client);
    stops.Push(session.Stop());
    EXPECT_TRUE(Eventually([&] { return Peer::Tag(session.client) != tag; })) << "nobody starts";
  };
  for (size_t round = 1; round <= 3; ++round) {
    session.option.client_id = "round" + std::to_string(round);
    ASSERT_EQ(session.Start(), kSuccess);
    EXPECT_EQ(Peer::Tag(session.client), session.option.client_id);
    session.Send("3003000161 3003000161");  // the second message is not delivered any more
    EXPECT_EQ(session.broker.Await(MsgType::DISCONNECT, round).hex(), "e000");
    EXPECT_EQ(stops.Await(round), std::vector<Result>(round, kSuccess));
  }
  session.option.client_id = "last";
  EXPECT_EQ(session.Start(), kSuccess);
  EXPECT_EQ(session.Stop(), kSuccess);
  EXPECT_EQ(stops.Await(3).size(), 3U);
  EXPECT_EQ(session.ends.Await(0).size(), 0U);
}

TEST(Stop, OnAnotherThreadIsWaitedForByTheDestructor) {
  auto session = std::make_unique<StartedSession>(k_mqtt311, std::map<MsgType, Handler>{}, 1);
  session->broker.connection().StopReading();  // so that the stop's DISCONNECT waits
  const LogCapture log;
  const std::string large(100'000, 'x');
  for (int i = 0; i < 200 && !log.Contains("Cannot send data during"); ++i) (void)session->Publish(0, large);
  auto stop =
      std::async(std::launch::async, [client = &session->client] { return client->StopClient(nullptr); });
  ASSERT_TRUE(log.WaitFor("Before call StopClient"));
  session.reset();
  EXPECT_TRUE(log.Contains("End of StopRecvThread"));
  EXPECT_EQ(stop.get(), kSuccess);
}

TEST(Callback, RestartsAndDeletesItsClientInsideDisconnectCb) {
  ScriptedBroker broker;
  auto option = Options(broker.port());
  Mailbox<Result> results;
  auto client = std::make_unique<MqttWrapper>();
  option.disconnect_cb = [&client, results](MqttWrapper* wrapper, int) {
    if (!results.Await(0).empty()) return client.reset(), results.Push(kSuccess);
    (void)wrapper->StopClient(nullptr);
    auto again = wrapper->GetConnectOption();
    results.Push(wrapper->StartClient(again, nullptr));
  };
  ASSERT_EQ(client->StartClient(option, nullptr), kSuccess);
  for (const size_t so_far : {1U, 2U}) {
    broker.connection().Close();
    EXPECT_EQ(results.Await(so_far), std::vector<Result>(so_far, kSuccess));
  }
  EXPECT_EQ(client, nullptr);
}

TEST(Callback, MayThrow) {
  Session session;
  session.option.message_cb = [](MqttWrapper::PublishMessage& message) {
    if (message.payload == "1") throw std::runtime_error("oops");
    throw 1;
  };
  session.option.disconnect_cb = [](MqttWrapper*, int) { throw std::runtime_error("oops"); };
  ASSERT_EQ(session.Start(), kSuccess);
  const LogCapture log;
  session.Send("3004 0001 'a' '1' 3006 0001 'a' '222'");
  EXPECT_TRUE(session.Healthy());
  EXPECT_EQ(log.Count("message_cb threw"), 2);
  session.broker.connection().Close();
  EXPECT_TRUE(log.WaitFor("disconnect_cb threw [oops]"));
}

TEST(Resources, StayOffTheStandardStreamsAndOutOfOtherPrograms) {
  const auto takes_signals = [] {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, SIGTERM) == 0 || ::sigismember(&mask, SIGUSR1) == 0;
  };
  Session session;
  session.option.message_cb = [&](auto&) {
    EXPECT_TRUE(!takes_signals() && psm::PsmManager::HeldLocks() == 1);
  };
  testing::internal::CaptureStderr();
  const int kept = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  ::close(STDIN_FILENO);
  const std::set<int> before = Descriptors();
  EXPECT_EQ(session.Start(), kSuccess);
  session.Send("0000 0000 62020009 3003000161");  // each of which is logged
  EXPECT_TRUE(session.Healthy() && takes_signals());
  EXPECT_GE(Descriptors().size(), before.size() + 4);  // socket, control descriptor, timer, epoll
  for (const int fd : Descriptors())
    EXPECT_TRUE(before.count(fd) != 0 || (fd > 2 && (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0)) << fd;
  EXPECT_EQ(session.Stop(), kSuccess);
  EXPECT_EQ(psm::PsmManager::HeldLocks(), 0U);
  ::dup2(kept, STDIN_FILENO);
  ::close(kept);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace zeb::test
