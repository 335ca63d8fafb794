// Requests and the acknowledgements they wait for: the right one, a wrong one, another request's, none. And
// what comes in: too large, repeated, endless.
#include <poll.h>

#include <ctime>
#include <list>
#include <optional>
#include <set>

#include "tests/session/session.h"

namespace zeb::test {
namespace {

// Each gets the right identifier on wrong types between two wrong identifiers, and then its own.
TEST(Publish, GoesOnOnlyAfterTheAcknowledgementOfItsOwnIdentifier) {
  Session session(k_mqtt311, {{MsgType::PUBLISH, Ignore}, {MsgType::PUBREL, Ignore}});
  for (const uint8_t qos : {uint8_t{1}, uint8_t{2}}) {
    ASSERT_EQ(session.Start(), kSuccess);
    const LogCapture log;
    auto published = session.PublishAsync(qos);
    ASSERT_EQ(session.broker.Await(MsgType::PUBLISH, qos).qos(), qos);
    session.Send(qos == 1 ? "40020063 50020001 70020001 40020063" : "50020063 40020001 70020001 50020063");
    ASSERT_TRUE(log.WaitFor("Expected message_id [1] but message_id [99] comes in continue loop", 2));
    EXPECT_FALSE(IsReady(published));
    EXPECT_EQ(session.broker.Count(MsgType::PUBREL), 0U);
    session.Send(qos == 1 ? "40020001" : "50020001");
    if (qos == 2) {
      ASSERT_EQ(session.broker.Await(MsgType::PUBREL).hex(), "62020001");
      session.Send("70020001");
    }
    EXPECT_EQ(published.get(), kSuccess);
    EXPECT_EQ(session.Stop(), kSuccess);
  }
}

TEST(Publish, ManyInFlightTakeTheirAnswersInAnyOrder) {
  constexpr size_t k_threads = 8;
  std::vector<Packet> held;  // the broker's thread alone
  const auto answer_in_reverse = [&held](Connection& connection, const Packet& packet) {
    held.push_back(packet);
    if (held.size() < k_threads) return;
    for (; !held.empty(); held.pop_back()) ScriptedBroker::Answer(connection, held.back());
  };
  StartedSession session(k_mqtt311, {{MsgType::PUBLISH, answer_in_reverse}});
  for (int round = 0; round < 20; ++round) {
    const LogMask mask(round < 10 ? LOG_DEBUG : LOG_WARNING);
    std::vector<std::future<Result>> published;
    for (size_t i = 0; i < k_threads; ++i) published.push_back(session.PublishAsync(i % 2 == 0 ? 1 : 2));
    for (auto& each : published) ASSERT_EQ(each.get(), kSuccess) << "round " << round;
  }
  for (const Packet& packet : session.broker.Received(MsgType::PUBLISH))  // no body mixed with another
    ASSERT_EQ(packet.body(), Bytes("0003612f62") + packet.id() + "hi");
  EXPECT_EQ(Peer::QueuedEvents(session.client).size(), 0U);
}

TEST(Request, SleepsWhileForeignEventsAreQueuedAndEndsSilently) {
  StartedSession session(k_mqtt311, {{MsgType::PUBLISH, Reply("3003000161")}}, 3);
  const LogCapture log;
  const std::clock_t cpu_before = std::clock();
  const double took = Seconds([&] { EXPECT_EQ(session.Publish(1), kFailure); });
  EXPECT_TRUE(took > 2.95 && took < 10) << took;
  EXPECT_LT(std::clock() - cpu_before, CLOCKS_PER_SEC * 3 / 10) << "it span";
  EXPECT_EQ(log.Count("Not proper event, requeue for future use"), 1);
  EXPECT_FALSE(log.Contains("Cannot get"));
  EXPECT_EQ(Peer::QueuedEvents(session.client).size(), 1U);  // put back for whoever it is for
}

TEST(Request, IsChargedForForeignEventsAloneAndUpToTheirArrival) {
  StartedSession session(k_mqtt311, {{MsgType::PUBLISH, Ignore}});
  auto& queue = Peer::Queue(session.client);
  const LogCapture log;
  auto other = std::make_unique<mqtt::AckQueue::Waiter>(queue, MsgType::PUBACK, 9);
  std::future<Result> published[2];
  for (size_t i = 0; i < 2; ++i) {
    published[i] = session.PublishAsync(1);
    ASSERT_TRUE(log.WaitFor("Before dequeue during", i + 1));
  }
  {
    const LogMask without_debug(LOG_WARNING);  // each sleeps until its own comes in
    queue.Enqueue({MsgType::PUBLISH, 0, nullptr});
    suspended_s += 60;
    queue.Enqueue({MsgType::PUBACK, 9, nullptr});
    queue.Enqueue({MsgType::PUBACK, 1, nullptr});
    EXPECT_EQ(published[0].get(), kSuccess);
    other.reset();  // now the second is to drop what came for it, as long ago as it did
    EXPECT_LT(Seconds([&] { EXPECT_EQ(published[1].get(), kFailure); }), 18.0);
  }
  auto third = session.PublishAsync(1);
  ASSERT_TRUE(log.WaitFor("Before dequeue during", 3));
  suspended_s += 60;
  queue.Enqueue({MsgType::PUBLISH, 0, nullptr});
  EXPECT_LT(Seconds([&] { EXPECT_EQ(third.get(), kFailure); }), 8.0);
  EXPECT_FALSE(log.Contains("Cannot get"));
}

TEST(Request, TakesAnAnswerThatCameInTimeHoweverLateItLooks) {
  StartedSession session(k_mqtt311, {{MsgType::PUBLISH, Ignore}}, 5);
  auto& queue = Peer::Queue(session.client);
  for (uint16_t id = 1; id <= 2; ++id) {
    const bool queued = id == 1;  // the answer, before the request has looked at the stray one
    const LogCapture log;
    auto published = session.PublishAsync(1);
    ASSERT_TRUE(log.WaitFor("Before dequeue during"));
    line_ms = queued ? 10'500 : 300;
    queue.Enqueue({MsgType::PUBACK, 0xFFF0, nullptr});
    if (queued) queue.Enqueue({MsgType::PUBACK, id, nullptr});
    ASSERT_TRUE(log.WaitFor("Expected PUBACK and PUBACK comes in"));
    line_ms = 0;
    suspended_s += 60;
    ASSERT_TRUE(log.WaitFor("Before dequeue during", 2));
    ::poll(nullptr, 0, 100);
    if (!queued) queue.Enqueue({MsgType::PUBACK, id, nullptr});
    EXPECT_EQ(published.get(), kSuccess);
  }
}

TEST(Request, EndsUnderAFloodOfOtherAnswers) {
  StartedSession session(k_mqtt311, {{MsgType::PUBLISH, Ignore}}, 3);
  auto& queue = Peer::Queue(session.client);
  constexpr struct {
    bool awaited;     // by another request, which does not take them
    double flood_s;   // and then silence
    bool before_one;  // of another type
  } k_floods[] = {{true, 20, false}, {true, 1, false}, {false, 20, false}, {false, 4.5, true}};
  for (const auto& flood : k_floods) {
    std::optional<mqtt::AckQueue::Waiter> other;
    if (flood.awaited) other.emplace(queue, MsgType::PUBACK, 9);
    const LogCapture log;
    line_ms = 1;  // so that new ones come faster than it looks at them
    const double took = Seconds([&] {
      auto published = session.PublishAsync(1);
      ASSERT_TRUE(log.WaitFor("Before dequeue during"));
      const int64_t end_us = util::MonotonicUs() + static_cast<int64_t>(flood.flood_s * 1e6);
      for (; util::MonotonicUs() < end_us && !IsReady(published); ::poll(nullptr, 0, 1))
        for (int i = 0; i < 10; ++i) queue.Enqueue({MsgType::PUBACK, 9, nullptr});
      if (flood.before_one) {
        queue.Enqueue({MsgType::PUBACK, 9, nullptr});  // for the next one to be charged with nothing
        queue.Enqueue({MsgType::PUBLISH, 0, nullptr});
      }
      EXPECT_EQ(published.get(), kFailure);
    });
    line_ms = 0;
    EXPECT_TRUE(flood.awaited ? took > 2.95 && took < 5.8 : took > 5.95 && took < 8.8) << took;
    EXPECT_EQ(log.Count("Cannot get PUBACK event for 3 seconds"), 1) << flood.flood_s;
  }
}

TEST(Request, FindsItsAnswerWhateverElseCameIn) {
  using Queue = mqtt::AckQueue;
  constexpr int k_requests = 400;
  Queue queue;
  std::list<Queue::Waiter> waiters;
  for (int id = 1; id <= k_requests; ++id) waiters.emplace_back(queue, MsgType::PUBACK, id);
  Queue::Waiter release(queue, MsgType::PUBCOMP, 1);
  const auto answer = [&](int first, int count) {
    for (int id = first; id < first + count; ++id)
      queue.Enqueue({MsgType::PUBACK, static_cast<uint16_t>(id), nullptr});
  };
  const auto look_through = [&](Queue::Waiter& waiter) {
    Queue::Look look;
    mqtt::AckEvent event;
    do {
      look = queue.Dequeue(waiter, event, 0);
    } while (look.verdict != Queue::Verdict::kNothing && look.verdict != Queue::Verdict::kAnswer &&
             look.verdict != Queue::Verdict::kEnd);
    return look;
  };
  answer(1000, 300);
  answer(1, k_requests / 2);
  for (int again = 0; again < 300; ++again) answer(1, 1);
  answer(k_requests / 2 + 1, k_requests / 2);
  answer(2000, 300);
  for (int again = 0; again < 300; ++again) answer(k_requests, 1);
  queue.Enqueue({});
  EXPECT_EQ(look_through(release).verdict, Queue::Verdict::kEnd);
  for (auto& waiter : waiters) {
    const Queue::Look look = look_through(waiter);
    ASSERT_EQ(look.verdict, Queue::Verdict::kAnswer);
    EXPECT_LT(look.queued, k_requests + Queue::k_max_events);
  }
  waiters.clear();
  answer(1, Queue::k_max_events);
  for (int id = 1; id <= static_cast<int>(Queue::k_max_events); ++id) {
    Queue::Waiter late(queue, MsgType::PUBACK, id);
    answer(id, 1);  // once more, and left behind
    EXPECT_EQ(look_through(late).verdict, Queue::Verdict::kAnswer);
  }
  answer(1000, 300);
  EXPECT_EQ(look_through(release).queued, Queue::k_max_events);
}

TEST(Request, ThatOutlivesItsSessionLeavesTheNextOneItsAnswers) {
  std::atomic<bool> answers{false};
  Session session(k_mqtt311, {{MsgType::PUBLISH, [&](Connection& connection, const Packet& packet) {
                                 if (answers) ScriptedBroker::Answer(connection, packet);
                               }}});
  ASSERT_EQ(session.Start(), kSuccess);
  std::future<Result> old[] = {session.PublishAsync(1), session.PublishAsync(1)};
  ASSERT_EQ(session.broker.Await(MsgType::PUBLISH, 2).qos(), 1);
  session.broker.connection().Close();
  ASSERT_EQ(session.ends.Await(1).size(), 1U);
  answers = true;
  ASSERT_EQ(session.Stop(), kSuccess);
  auto refused = session.option;
  refused.port = 1;  // nobody listens there
  EXPECT_EQ(session.client.StartClient(refused, nullptr), kInvalidArgument);
  ASSERT_EQ(session.Start(), kSuccess);
  std::future<Result> fresh[] = {session.PublishAsync(1), session.PublishAsync(1)};
  for (auto& each : old) EXPECT_LT(Seconds([&] { EXPECT_EQ(each.get(), kFailure); }), 5.0);
  for (auto& each : fresh) EXPECT_EQ(each.get(), kSuccess);
  const auto published = session.broker.Received(MsgType::PUBLISH, 4);
  const std::set<std::string> ids{Hex(published[2].id()), Hex(published[3].id())};
  EXPECT_EQ(ids, (std::set<std::string>{"0001", "0002"}));  // as in the session before
}

TEST(Request, InsideMessageCbFailsAtOnceButQos0Works) {
  Session session;
  Mailbox<Result> results;
  session.option.message_cb = [&](MqttWrapper::PublishMessage&) {
    results.Push(session.Publish(1));
    results.Push(session.Publish(0));
    results.Push(session.client.Ping(true));
  };
  ASSERT_EQ(session.Start(), kSuccess);
  const LogCapture log;
  session.Send("3003000161");
  const std::vector<Result> expected{kFailure, kSuccess, kFailure};
  EXPECT_LT(Seconds([&] { EXPECT_EQ(results.Await(3), expected); }), 5.0);
  EXPECT_EQ(log.Count("Cannot get PUBACK event for 10 seconds"), 1);
  EXPECT_EQ(log.Count("Cannot get PINGRESP event for 10 seconds"), 1);
  EXPECT_EQ(session.broker.Await(MsgType::PUBLISH, 2).qos(), 0);
  EXPECT_EQ(session.Publish(2), kSuccess);
}

TEST(Stream, APacketThatIsTooLargeIsSkippedAndLeavesNothingForTheNextSession) {
  StartedSession session;
  const LogCapture log;
  const std::string packet = Bytes("30bc9a0c 000161") + std::string(199'993, 'x');
  session.broker.connection().Send(packet + Bytes("3007 000161 'next'"));
  EXPECT_EQ(session.payloads.Await(1), std::vector<std::string>{"next"});
  EXPECT_EQ(log.Count("Drop this too big packet total_packet_size [200000]"), 1);
  session.broker.connection().Send(packet.substr(0, 150'000));
  session.broker.connection().Close();
  EXPECT_EQ(session.ends.Await(1), std::vector<int>{1});
  EXPECT_EQ(session.Stop(), kSuccess);
  ASSERT_EQ(session.Start(), kSuccess);
  EXPECT_TRUE(session.Healthy());
}

}  // namespace
}  // namespace zeb::test
