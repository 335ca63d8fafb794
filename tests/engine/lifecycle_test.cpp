// What a client's state lets a start, a stop and a delete do: one by one, and all at once from many threads.
#include "mqtt/lifecycle.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <optional>
#include <random>

#include "tests/support/loopback.h"
#include "tests/support/watchdog.h"

namespace zeb::mqtt {
namespace {

using test::AwaitEvent;
using Stop = Lifecycle::Stop;

constexpr int64_t k_patience_us = 60'000'000;  // the watchdog is faster

enum class Stage { kIdle, kConnecting, kExchanging, kLost, kUp, kStopping, kEnded };

/// A client that this thread has brought to a stage. Its receive thread waits for its end.
struct Client {
  explicit Client(Stage reached) : stage(reached) {
    if (stage == Stage::kIdle) return;
    EXPECT_TRUE(lifecycle.BeginStart(0));
    inside.emplace(lifecycle);
    if (stage == Stage::kConnecting) return;
    const auto receive = [this] { (void)lost.Await(1), lifecycle.EndThread(false, false); };
    EXPECT_EQ(lifecycle.LaunchThread(receive), kSuccess);
    inside.reset();
    if (stage == Stage::kLost || stage == Stage::kEnded) Lose();
    EXPECT_TRUE(stage < Stage::kUp || lifecycle.Confirm(*session, &status));
    EXPECT_TRUE(stage != Stage::kStopping || lifecycle.BeginStop() == Stop::kOwner);
  }
  ~Client() { Lose(); }

  void Lose() {
    lost.Push(0);
    lifecycle.AwaitThreadEnd();
  }
  /// Ends what others wait for: a start that is taken back or has lost its connection, or a stop.
  void Release() {
    if (stage == Stage::kConnecting) {
      EXPECT_TRUE(AwaitEvent(lifecycle.abort_fd(), POLLIN));
      EXPECT_EQ(lifecycle.LaunchThread([] {}), kNotStarted);
      lifecycle.EndStart();
      return inside.reset();
    }
    EXPECT_TRUE(stage == Stage::kStopping || lifecycle.BeginStopOf(*session, 0) == Stop::kOwner);
    Lose();
    lifecycle.EndStop();
  }

  const Stage stage;
  Lifecycle lifecycle;
  const std::shared_ptr<Session> session = lifecycle.Current();
  const test::Mailbox<int> lost;
  std::atomic<int32_t> status{1};
  std::optional<Lifecycle::Call> inside;  // the start that is connecting
};

TEST(Lifecycle, EachStateLetsInRefusesOrHoldsUpWhoComes) {
  enum Outcome { kGets, kRefused, kWaits, kWaitsInVain };
  const std::function<bool(Client&)> calls[] = {
      [](Client& it) { return it.lifecycle.BeginStart(k_patience_us); },
      [](Client& it) { return it.lifecycle.BeginStop() == Stop::kOwner; },
      [](Client& it) { return it.lifecycle.BeginStopOf(*it.session, k_patience_us) == Stop::kOwner; },
      [](Client& it) { return it.lifecycle.Close(), !it.lifecycle.BeginStart(k_patience_us); },
  };
  const struct {
    Stage stage;
    Stop own_stop;        // on the thread that started
    Outcome outcomes[4];  // elsewhere: of a start, a stop, the tear-down of a failed start, a delete
  } states[] = {
      {Stage::kIdle, Stop::kNothing, {kGets, kRefused, kRefused, kGets}},
      {Stage::kConnecting, Stop::kMarked, {kRefused, kWaitsInVain, kRefused, kWaits}},
      {Stage::kExchanging, Stop::kOwner, {kRefused, kGets, kGets, kGets}},
      {Stage::kLost, Stop::kOwner, {kWaits, kGets, kGets, kGets}},
      {Stage::kUp, Stop::kOwner, {kRefused, kGets, kGets, kGets}},
      {Stage::kStopping, Stop::kIgnored, {kWaits, kRefused, kWaitsInVain, kWaits}},
      {Stage::kEnded, Stop::kOwner, {kRefused, kGets, kGets, kGets}},
  };
  const auto* const deletes = std::end(calls) - 1;  // refuses also who waits already
  test::Watchdog watchdog("states");
  for (const auto& [stage, own_stop, outcomes] : states) {
    EXPECT_EQ(Client(stage).lifecycle.BeginStop(), own_stop);
    for (size_t i = 0; i < std::size(calls); ++i, watchdog.Alive()) {
      SCOPED_TRACE(testing::Message() << "stage " << static_cast<int>(stage) << ", call " << i);
      Client client(stage);
      // Nobody waits for a start of the same thread, and a start tears down no session but its own.
      const int64_t patience_us = stage == Stage::kStopping ? 0 : k_patience_us;
      EXPECT_TRUE(stage == Stage::kIdle || !client.lifecycle.BeginStart(patience_us));
      EXPECT_EQ(client.lifecycle.BeginStopOf(Session(), k_patience_us), Stop::kNothing);
      auto gets = std::async(std::launch::async, calls[i], std::ref(client));
      if (outcomes[i] >= kWaits) {
        EXPECT_FALSE(&calls[i] == deletes && client.lifecycle.BeginStart(k_patience_us));
        EXPECT_EQ(gets.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
        client.Release();
      }
      EXPECT_EQ(gets.get(), outcomes[i] == kGets || outcomes[i] == kWaits);
    }
  }
}

/// Starts, stops, lost connections, callbacks and a delete as a client makes them, without any packet.
class Simulation {
 public:
  using Random = std::minstd_rand;
  enum Kind { kStop, kLose, kStart };

  void Run(unsigned seed) {
    lifecycle_ = std::make_unique<Lifecycle>();
    deleted_ = false;
    std::vector<std::future<void>> threads;
    for (unsigned thread = 1; thread <= 4; ++thread) {
      threads.push_back(std::async(std::launch::async, [this, random = Random(seed * 4 + thread)]() mutable {
        for (int step = 0; step < 20; ++step) Call(static_cast<Kind>(random() % 3), random);
      }));
    }
    threads.front().wait();
    {
      const std::lock_guard<std::mutex> lock(gate_);
      deleted_ = true;
    }
    lifecycle_->Close();
    EXPECT_EQ(calls_, 0);
    FinishStop(Stop::kOwner);
    lifecycle_.reset();
    EXPECT_EQ(gone_.Await(launched_).size(), launched_);
  }

  std::atomic<size_t> launched_{0}, aborted_{0}, torn_down_{0}, stopped_inside_{0};

 private:
  /// The application calls nothing any more once it deletes the client.
  void Call(Kind kind, Random& random) {
    std::unique_lock<std::mutex> not_deleted(gate_);
    if (deleted_) return;
    const Lifecycle::Call call(*lifecycle_);
    ++calls_;
    not_deleted.unlock();
    if (kind == kStop) FinishStop(lifecycle_->BeginStop());
    if (kind == kLose) lifecycle_->Current()->Ask(Session::k_network_lost);
    if (kind == kStart) Start(random);
    --calls_;
  }

  void Start(Random& random) {
    if (!lifecycle_->BeginStart(random() % 2 == 0 ? k_patience_us : 0)) return;
    EXPECT_FALSE(lifecycle_->OnReceiveThread());
    EXPECT_EQ(++connecting_, 1);
    EXPECT_EQ(running_, 0);
    const auto session = std::make_shared<Session>();
    EXPECT_LT(lifecycle_->Install(session)->EventFd(), 0) << "it was still open";
    status_ = 1;
    (void)AwaitEvent(lifecycle_->abort_fd(), POLLIN, std::chrono::milliseconds(random() % 2));
    session->SetEventFd(util::ScopedFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)));
    ++running_, --connecting_;
    const auto receive = [=, gone = gone_, seed = random()] {
      Receive(*session, Random(seed)), gone.Push(0);
    };
    if (lifecycle_->LaunchThread(receive) == kSuccess) return (void)++launched_, Exchange(session);
    --running_, ++aborted_;
    EXPECT_TRUE(AwaitEvent(lifecycle_->abort_fd(), POLLIN)) << "nobody took it back";
    session->CloseEventFd();
    lifecycle_->EndStart();
  }

  void Exchange(const std::shared_ptr<Session>& session) {
    AckEvent event;
    AckQueue::Waiter waiter(session->ack_event_q_, MsgType::CONNACK, 0);
    const auto verdict = session->ack_event_q_.Dequeue(waiter, event, k_patience_us).verdict;
    if (verdict == AckQueue::Verdict::kAnswer && lifecycle_->Confirm(*session, &status_)) return;
    const Stop stop = lifecycle_->BeginStopOf(*session, k_patience_us);
    if (stop != Stop::kOwner) return;
    EXPECT_EQ(lifecycle_->Current(), session);
    ++torn_down_;
    FinishStop(stop);
  }

  void FinishStop(Stop stop) {
    if (stop != Stop::kOwner) return;
    EXPECT_EQ(++owners_, 1);
    EXPECT_EQ(connecting_, 0);
    const auto session = lifecycle_->Current();
    session->Ask(Session::k_stop);
    if (lifecycle_->OnReceiveThread()) return (void)(session->stopped_inside_ = true);
    lifecycle_->AwaitThreadEnd();
    EXPECT_EQ(running_, 0);
    session->CloseEventFd();
    --owners_;
    lifecycle_->EndStop();
  }

  void Receive(Session& session, Random random) {
    if (random() % 4 != 0) {
      session.ack_event_q_.Enqueue({MsgType::CONNACK, 0, nullptr});
      if (random() % 2 == 0) Call(static_cast<Kind>(random() % 3), random);  // in message_cb
      EXPECT_TRUE(random() % 4 == 0 || AwaitEvent(session.EventFd(), POLLIN));
    }
    status_ = 3;
    session.ack_event_q_.Enqueue({});
    const bool stopped = session.stopped_inside_;
    const bool reports = !session.stop_asked() && random() % 2 == 0;
    if (stopped) session.CloseEventFd(), ++stopped_inside_, --owners_;
    --running_;
    lifecycle_->EndThread(reports, stopped);
    if (reports && random() % 2 == 0) Call(kStop, random);
    if (reports) Call(kStart, random);
  }

  std::unique_ptr<Lifecycle> lifecycle_;
  std::mutex gate_;
  bool deleted_ = false;
  std::atomic<int32_t> status_{0};
  std::atomic<int> connecting_{0}, running_{0}, owners_{0}, calls_{0};
  const test::Mailbox<int> gone_{};  // receive threads
};

TEST(Lifecycle, HasOneOwnerInEveryOrder) {
  test::Watchdog watchdog("simulation");
  Simulation simulation;
  for (unsigned round = 0; round < 100 && !HasFailure(); ++round, watchdog.Alive()) simulation.Run(round);
  EXPECT_GT(simulation.aborted_ * simulation.torn_down_ * simulation.stopped_inside_, 0U);
}

}  // namespace
}  // namespace zeb::mqtt
