// The parts of a session, each on its own: what is judged, put together, handed over, forgotten and awaited.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "mqtt/ack_queue.h"
#include "mqtt/inbound_qos2.h"
#include "mqtt/ping_watch.h"
#include "mqtt/stream_assembler.h"
#include "tests/support/scripted_broker.h"

namespace zeb::mqtt {
namespace {

using Waiter = AckQueue::Waiter;

constexpr int64_t k_patience_us = 60'000'000;

TEST(PingWatch, JudgesEachPingByItsOwnAnswer) {
  // p: a ping, a: an answer, j: a look, each at a time; b: the next ping reports to its caller, and this ends
  // answered (e) or not (x). For each p and j a letter: in Time, Late, Missing, Unordered, late Before.
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"the limit is exact", "p10 a20 j20 p30 a41 j41 p50 j60 j61", ".T.L..M"},
      {"both answers before a look", "p10 p12 a13 a14 j15 p20 j31", "..T.M"},
      {"an answer at the same instant", "p10 a10 j11", ".T"},
      {"judged by the next ping", "p10 a21 p22 a23 j24 j25 p30 a31 p45 j56", ".LBT.TM"},
      {"its caller is told", "b0 p10 j99 x0 j99", "..."},
      {"answered to its caller", "b0 p10 a11 e0 p20 j30 j31", "...M"},
      {"given up, answered behind the next ping", "b0 p10 x0 p20 a21 j22 a23 p30 j31", "..T.."},
  };
  for (const auto& [name, script, verdicts] : cases) {
    PingWatch watch;
    std::string judged;
    std::istringstream steps(script);
    int64_t now = 0;
    for (char step = 0; steps >> step >> now;) {
      if (step == 'b') watch.Begin(true, true);
      if (step == 'e' || step == 'x') watch.EndReported(step == 'e');
      if (step == 'a') watch.Received(now);
      if (step != 'p' && step != 'j') continue;
      const auto judgement = step == 'p' ? watch.Sending(now, 10) : watch.Judge(now, 10);
      judged += ".TLMUB"[static_cast<int>(judgement.verdict)];
    }
    EXPECT_EQ(judged, verdicts) << name;
  }
}

TEST(StreamAssembler, SkipsAPacketUpToItsEndAndKeepsWhatIsBehind) {
  constexpr int k_buffer = 16;
  for (int size = k_buffer + 1; size <= 40; ++size) {
    for (int piece = 1; piece <= k_buffer; ++piece) {
      const auto rest = static_cast<char>(size - 2);
      const std::string bytes =
          std::string{'0', rest} + std::string(static_cast<size_t>(rest), 'x') + "0123456789abcdef";
      const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
      StreamAssembler stream;
      ASSERT_TRUE(stream.Allocate(k_buffer));
      std::copy_n(data, k_buffer, stream.room());
      stream.Keep(0, k_buffer);
      int at = k_buffer;
      StreamAssembler::Skipped skipped;
      for (; at < size && stream.full() && !skipped.over; at += piece)
        skipped = stream.Skip(data + at, piece);
      ASSERT_TRUE(skipped.over && at >= size && skipped.extra_left == at - size) << size << " " << piece;
      const auto left = static_cast<size_t>(at - size);
      EXPECT_EQ(std::string(stream.begin(), stream.begin() + left), bytes.substr(bytes.size() - 16, left));
    }
  }
}

TEST(StreamAssembler, KnowsTheWholePacketThatIsRefused) {
  const std::pair<const char*, int> cases[] = {{"0000", 2}, {"0f03aabbccdd", 5}, {"0f03aabb", 0},
                                               {"00", 0},   {"0080", 0},         {"1000", 0}};
  for (const auto& [hex, size] : cases) {
    const std::string bytes = test::Bytes(hex);
    const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
    EXPECT_EQ(StreamAssembler::SizeOfRefused(data, static_cast<int>(bytes.size())), size) << hex;
  }
}

TEST(InboundQos2, ForgetsTheOldestOfTooMany) {
  InboundQos2 inbound;
  for (int id = 0; id <= 65'535; ++id) inbound.Add(static_cast<uint16_t>(id), id);
  inbound.Add(7, 65'536);
  EXPECT_TRUE(!inbound.Release(0) && !inbound.Release(1) && inbound.Release(2) && inbound.Release(7));
  EXPECT_EQ(inbound.records().back().recv_time, 65'536);  // the older of two with one identifier has gone
}

/// What one request finds without waiting: each event's identifier behind f (of another type), d (dropped) or
/// A (its answer), E for the end, a point for nothing more.
std::string Finds(AckQueue& queue, Waiter& waiter) {
  using Verdict = AckQueue::Verdict;
  std::string found;
  for (AckEvent event;;) {
    const Verdict verdict = queue.Dequeue(waiter, event, 0).verdict;
    if (verdict == Verdict::kNothing) return found + ".";
    if (verdict == Verdict::kEnd) return found + "E";
    found += verdict == Verdict::kForeign ? 'f' : verdict == Verdict::kDropped ? 'd' : 'A';
    found += std::to_string(event.message_id);
    if (verdict == Verdict::kAnswer) return found;
  }
}

void Enqueue(AckQueue& queue, MsgType type, int first, int last) {
  for (int id = first; id <= last; ++id) queue.Enqueue({type, static_cast<uint16_t>(id), nullptr});
}

/// Whether a wait that should end by news does, and no other.
void ExpectNews(AckQueue& queue, Waiter& waiter, bool news) {
  const int64_t patience_us = news ? k_patience_us : 2'000;
  const int64_t start_us = util::MonotonicUs();
  EXPECT_TRUE(queue.AwaitNews(waiter, patience_us));
  EXPECT_EQ(util::MonotonicUs() - start_us < patience_us, news);
}

/// What the requests of a script find. P, R, M and S: a PUBACK, PUBREC, message or CONNACK comes in;
/// E0: the connection ends; C0: the queue is cleared; T0: the send queue is empty. a to d register for a
/// PUBACK, s for CONNACK, n for nothing. ?a: a looks; +a: there are news for it; ~a: there are none; -a: it
/// gives up.
std::string Play(const std::string& script) {
  const std::map<char, MsgType> types{{'R', MsgType::PUBREC},
                                      {'M', MsgType::PUBLISH},
                                      {'S', MsgType::CONNACK},
                                      {'s', MsgType::CONNACK},
                                      {'n', MsgType::RESERVED}};
  AckQueue queue;
  std::map<char, Waiter> waiters;
  std::string found;
  std::istringstream words(script);
  for (std::string word; words >> word;) {
    const char what = word[0];
    const int id = word[1] - '0';
    const MsgType type = types.count(what) != 0 ? types.at(what) : MsgType::PUBACK;
    if (std::string("PRMS").find(what) != std::string::npos) Enqueue(queue, type, id, id);
    if (what == 'E') queue.Enqueue({});
    if (what == 'C') queue.Clear();
    if (what == 'T') queue.TellNews();
    if (what >= 'a' && what <= 's') waiters.try_emplace(what, queue, type, id);
    if (what == '?') found += Finds(queue, waiters.at(word[1]));
    if (what == '+' || what == '~') ExpectNews(queue, waiters.at(word[1]), what == '+');
    if (what == '-') waiters.erase(word[1]);
  }
  return found;
}

TEST(AckQueue, HandsEachEventToWhoeverAwaitsItFirst) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"the oldest first, any identifier", "a0 b7 c7 P7 ?b ?c ?a", "..A7"},
      {"what is left behind goes on", "a0 b7 c7 P7 -a ?c -b ?c", ".A7"},
      {"each has one", "a0 b7 P7 P7 P7 ?a ?b c7 ?c", "A7A7A7"},
      {"in order of arrival", "R1 P2 a4 R3 P4 P5 ?a ?a b0 ?b", "f1d2f3A4d5.f1f3."},
      {"a stray stays for whoever awaits it, answered or not", "a9 P9 P9 b1 ?b -a c9 ?c d9 ?d", ".A9A9"},
      {"left behind, it is listed in its place", "a1 P1 R2 -a b1 ?b", "A1"},
      {"one takes the end", "a1 b2 P2 E0 ?b ?b ?a", "A2E."},
      {"a start takes it first", "a1 s0 E0 ?a ?s ?a", ".E."},
      {"unless it has its answer", "a1 s0 S0 E0 ?a ?s", "EA0"},
      {"the end outlives a clear, which ends who is there", "a1 b2 s0 R3 P1 E0 C0 c2 P2 ?a ?b ?s ?c ?c",
       "EEEA2E"},
      {"news of one's answer", "a1 b2 n0 P1 +a ~b +n ~a ~n", ""},
      {"news of nobody's answer", "a1 b2 n0 P9 +a +b +n ~a", ""},
      {"no news of a message", "a1 n0 M0 ~a ~n", ""},
      {"news of an empty send queue", "a1 n0 T0 +a +n ~a ~n", ""},
  };
  for (const auto& [name, script, found] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Play(script), found);
  }
}

TEST(AckQueue, ForgetsTheOldestAndSoonerWhatNobodyCanAwait) {
  AckQueue queue;
  Enqueue(queue, MsgType::PUBLISH, 1, 100);
  queue.Clear();
  Enqueue(queue, MsgType::PUBLISH, 1, 100);
  Waiter early(queue, MsgType::PUBACK, 999);
  EXPECT_EQ(Finds(queue, early).substr(0, 6), "f37f38");
  Enqueue(queue, MsgType::PUBACK, 1, 300);
  Enqueue(queue, MsgType::PUBLISH, 1, 100);
  Waiter late(queue, MsgType::PUBACK, 999);
  const std::string found = Finds(queue, late);
  EXPECT_EQ(found.substr(0, 8), "d109d110");
  EXPECT_NE(found.find("d300f37f38"), std::string::npos);
}

}  // namespace
}  // namespace zeb::mqtt
