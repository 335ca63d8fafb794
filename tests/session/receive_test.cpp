// The inbound stream: cut anywhere, too large, refused, endless. What the client answers and delivers.
#include <malloc.h>

#include <set>

#include "tests/session/session.h"

namespace zeb::test {
namespace {

/// A QoS 0 PUBLISH of `total` bytes, 16,388 or more.
std::string SizedPublish(size_t total) {
  const size_t length = total - 4;
  const std::string header = {'\x30', static_cast<char>((length & 0x7F) | 0x80),
                              static_cast<char>((length >> 7 & 0x7F) | 0x80),
                              static_cast<char>(length >> 14)};
  return header + Bytes("000161") + std::string(length - 3, 'x');
}

/// `last` is the payload, or an empty property block.
std::string Qos1Publishes(int count, char last) {
  std::string all;
  for (int id = 1; id <= count; ++id)
    all += Bytes("3206000161") + static_cast<char>(id >> 8) + static_cast<char>(id & 0xFF) + last;
  return all;
}

TEST(Stream, IsTheSameWhereverItIsCutAndBehindRefusedPackets) {
  const std::string packets[] = {Bytes("3008 0003612f62 313233"),
                                 Bytes("30c501 000161") + std::string(194, 'x'),
                                 Bytes("d000"),
                                 Bytes("0002aabb"),
                                 Bytes("0000"),
                                 Bytes("3207 0003612f62 0005"),
                                 Bytes("3005 000161 3435")};
  std::string stream;
  std::set<size_t> ends;
  for (const std::string& packet : packets) ends.insert((stream += packet).size());
  StartedSession session;
  const LogCapture log;
  size_t saved = 0;
  std::vector<std::string> expected;
  for (size_t cut = 1; cut<stream.size(); cut += cut> 15 && cut < 205 ? 19 : 1) {
    session.broker.connection().Send(stream.substr(0, cut));
    if (ends.count(cut) == 0) ++saved;  // a packet's start is held
    ASSERT_TRUE(log.WaitFor("Save buffer for future use left_buf_size_", saved)) << cut;
    session.broker.connection().Send(stream.substr(cut));
    for (const auto& payload : {std::string("123"), std::string(194, 'x'), std::string(), std::string("45")})
      expected.push_back(payload);
    ASSERT_EQ(session.payloads.Await(expected.size()), expected) << cut;
  }
  session.broker.connection().Send(stream + stream + stream);  // many packets in one read
  EXPECT_EQ(session.payloads.Await(expected.size() + 12).size(), expected.size() + 12);
  EXPECT_EQ(session.broker.Await(MsgType::PUBACK, expected.size() / 4 + 3).hex(), "40020005");
}

TEST(Stream, APubrelThatTheBrokerRepeatsInItsNextSessionIsAnswered) {
  StartedSession session(k_mqtt311, {{MsgType::PUBREC, Ignore}});
  const auto expect = [&](const char* inbound, size_t pubrecs, size_t pubcomps) {
    session.Send(inbound);
    for (int trip = 0; trip < 2; ++trip) EXPECT_TRUE(session.Healthy());  // the answers have come in by then
    EXPECT_EQ(session.broker.Count(MsgType::PUBREC), pubrecs);
    EXPECT_EQ(session.broker.Count(MsgType::PUBCOMP), pubcomps);
  };
  expect("3405 000161 0009 3405 000161 000a 62020009", 2, 1);
  expect("62020009", 2, 1);  // not within the same one
  for (int restart = 0; restart < 2; ++restart) {
    EXPECT_EQ(session.Stop(), kSuccess);
    EXPECT_EQ(session.Start(), kSuccess);
  }
  expect("62020009 6202000a", 2, 3);
  expect("62020009 6202000a 6202000b", 2, 3);
  EXPECT_EQ(session.Stop(), kSuccess);
  EXPECT_EQ(session.Start(), kSuccess);
  expect("3405 000161 0009 62020009 62020009", 3, 4);  // a new message under the identifier
}

TEST(Stream, ResumesBehindAPacketThatIsTooLarge) {
  StartedSession session;
  std::vector<std::string> expected;
  for (const size_t size : {131'071U, 131'072U, 131'073U, 131'074U, 147'456U, 200'000U}) {
    SCOPED_TRACE(size);
    const bool taken = size <= 131'072;
    const LogCapture log;
    if (taken) expected.emplace_back(size - 7, 'x');
    expected.push_back("next");
    session.broker.connection().Send(SizedPublish(size) + Bytes("3007000161") + "next");
    ASSERT_TRUE(session.payloads.Await(expected.size()) == expected);
    EXPECT_EQ(log.Count("Drop this too big packet total_packet_size [" + std::to_string(size) + "]"), !taken);
  }
  session.broker.connection().Send(SizedPublish(300'000).substr(0, 250'000));
  session.broker.connection().Close();
  EXPECT_EQ(session.ends.Await(1), std::vector<int>{1});
  EXPECT_EQ(session.Stop(), kSuccess);
  ASSERT_EQ(session.Start(), kSuccess);  // nothing of it is left for the next connection
  EXPECT_TRUE(session.Healthy());
}

TEST(Inbound, TenThousandMessagesAreAnsweredInOrderInConstantMemory) {
  constexpr int k_messages = 10'000;
  Session session;
  session.option.message_cb = nullptr;
  ASSERT_EQ(session.Start(), kSuccess);
  const size_t before = ::mallinfo2().uordblks;
  session.broker.connection().Send(Qos1Publishes(k_messages, 'p'));
  ASSERT_EQ(session.broker.Await(MsgType::PUBACK, k_messages).hex(), "40022710");
  EXPECT_LT(::mallinfo2().uordblks, before + 3'000'000);  // of which the broker's own records are the most
  std::string answers;
  for (const Packet& answer : session.broker.Received(MsgType::PUBACK))
    answers += Bytes("3206000161") + answer.id() + "p";
  EXPECT_TRUE(answers == Qos1Publishes(k_messages, 'p'));
  EXPECT_LE(Peer::QueuedEvents(session.client).size(), 64U);
  EXPECT_LT(Seconds([&] { EXPECT_EQ(session.Publish(1), kSuccess); }), 2.0);  // no slower for what is queued
}

// Whatever comes in, every call ends near its time-out and the client can be stopped and started again.
TEST(Hostile, AFloodFromABrokerThatNeverReadsHoldsNoCallForLong) {
  std::list<MqttWrapper::PairedString> some = {{"k", std::string(1'000, 'x')}};  // soon clogs the way
  for (const bool stops : {true, false}) {
    auto session = std::make_unique<Session>(k_mqtt5, std::map<MsgType, Handler>{}, 1);
    session->option.message_cb = nullptr;
    EXPECT_EQ(session->client.SetPubAckUserProperties(some), kSuccess);
    ASSERT_EQ(session->Start(), kSuccess);
    session->broker.connection().StopReading();
    session->broker.connection().Send(Qos1Publishes(30'000, '\0'));
    Result result = kSuccess;
    for (int i = 0; i < 20 && result == kSuccess; ++i)
      EXPECT_LT(Seconds([&] { result = session->Publish(0); }), 4.0);
    EXPECT_NE(result, kSuccess) << "not clogged";
    EXPECT_LT(Seconds([&] { EXPECT_EQ(stops ? session->Stop() : kSuccess, kSuccess); }), 4.0);
    EXPECT_LT(Seconds([&] { session.reset(); }), 4.0);
  }
}

}  // namespace
}  // namespace zeb::test
