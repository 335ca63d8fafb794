// The meeting place of the receive thread, which reports what came in, and the requests that wait for it.
#pragma once

#include <bitset>
#include <cstdint>
#include <list>
#include <memory>

#include "mqtt/codec/codec.h"
#include "util/boot_clock.h"
#include "util/condition.h"
#include "util/mutex.h"

namespace zeb::mqtt {

/// What three of the acknowledgements tell beyond their type and identifier.
struct AckRecords {
  MqttWrapper::ConnectAck connect_ack;                // CONNACK
  MqttWrapper::SubscriptionAck subscription_ack;      // SUBACK
  MqttWrapper::UnsubscriptionAck unsubscription_ack;  // UNSUBACK
};

/// One inbound packet, as far as a waiting request needs it. Type RESERVED marks the connection's end. Nearly
/// all of them, one a message and more, are a type and an identifier.
struct AckEvent {
  MsgType type = MsgType::RESERVED;
  uint16_t message_id = 0;
  std::unique_ptr<AckRecords> records;  // of CONNACK, SUBACK and UNSUBACK; else null
};

/// Events in order of arrival. Several requests wait at once, each registered with what it awaits: an event
/// that is not a request's own stays where it is for the others, and is looked at only once by each request,
/// when it wakes up for its own. Any thread.
class AckQueue {
 public:
  /// Events that no request can wait for (PUBLISH, say) are kept up to this many,
  static constexpr size_t k_max_unawaited = 64;
  /// and all together up to this many beside the answers that requests await; the oldest go first. Of an
  /// answer that comes more than once only one is awaited.
  static constexpr size_t k_max_events = 256;
  /// Who waits does so on a lane, so that one acknowledgement does not wake all. More waiters than lanes only
  /// wake one another up. The first lane is for those who await nothing of the queue but news.
  static constexpr size_t k_lanes = 16;
  static constexpr size_t k_news_lane = 0;

  /// A request's place in the queue, for as long as the object lives. Register before sending, so that other
  /// requests leave this one's acknowledgement alone from the start.
  class Waiter {
   public:
    /// `message_id` 0 or less accepts any identifier. `queue` must outlive the waiter.
    Waiter(AckQueue& queue, MsgType awaited, int message_id);
    ~Waiter();
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    [[nodiscard]] size_t lane() const { return lane_; }

   private:
    friend class AckQueue;
    [[nodiscard]] bool IsCurrent() const { return session_ == queue_.session_; }
    [[nodiscard]] bool Awaits(const AckEvent& event) const;
    AckQueue& queue_;
    const MsgType awaited_;
    const int message_id_;
    size_t lane_ = 0;       // the same as long as it lives
    uint64_t session_ = 0;  // the queue's when it was registered
    uint64_t seen_ = 0;     // number of the newest event looked at; its own thread's alone
    uint64_t answer_ = 0;   // number of the event kept for it; 0: none came in
  };

  /// What a look at the next event told.
  enum class Verdict {
    kNothing,  // no event came in time
    kMatch,    // the awaited acknowledgement: taken
    kDropped,  // the awaited type for an identifier that no request awaits: taken
    kOthers,   // the awaited type for an identifier that another request awaits: left
    kForeign,  // another type: left
    kEnd,      // the connection's end: taken
  };
  struct Look {
    Verdict verdict = Verdict::kNothing;
    MsgType type = MsgType::RESERVED;
    uint16_t message_id = 0;
    size_t queued = 0;       // events in the queue afterwards; at kNothing those of other types alone
    util::Moment arrived{};  // of the event; zero when no request was there yet
  };

  /// Appends the event and wakes the request that awaits it; where there is none, every one, since each may
  /// have to drop it or learn of the end. Events that no request can wait for wake nobody. While lines in
  /// debug are written every event wakes every request, for each to tell at once what it does with it.
  /// Properties that no request is waiting for are left out.
  void Enqueue(AckEvent event);

  /// Takes the next event that this waiter has not seen, waiting for one up to `timeout_us` (0 or more; after
  /// a time-out it looks once more). On a match the event is moved to `out`.
  Look Dequeue(Waiter& waiter, AckEvent& out, int64_t timeout_us);

  /// Waits up to `timeout_us` for news on the lane beyond `*seen`, and brings `*seen` up to date: an event
  /// that wakes the lane (the news lane: any that a request could wait for), or TellNews.
  void AwaitNews(size_t lane, uint64_t* seen, int64_t timeout_us);
  /// Wakes all who are in AwaitNews.
  void TellNews();
  /// Count of the lane's news.
  uint64_t News(size_t lane);
  /// Changes with every Clear.
  uint64_t Session();

  /// Forgets every event and begins a new session: for requests of earlier ones, whose identifiers the new
  /// session gives out again, there is only the end.
  void Clear();

 private:
  friend struct SelfMqttImplPeer;  // tests look at the queued events through it

  struct Entry {
    uint64_t number;
    util::Moment arrived;
    AckEvent event;
    Waiter* kept_for = nullptr;  // that request's `answer_`: stays however many more come in
  };
  using Entries = std::list<Entry>;

  using LaneSet = std::bitset<k_lanes>;

  LaneSet LanesToWake(const AckEvent& event, bool debug) const;
  void Announce(util::MutexLock& lock, LaneSet lanes);
  void Wake(LaneSet lanes);
  bool TypeIsAwaited(MsgType type) const;
  bool IsAwaited(const AckEvent& event) const;
  void KeepForWaiter(Entry& entry);
  void Unregister(Waiter& waiter);
  void DropOldest();
  Look Judge(Waiter& waiter, Entries::iterator entry, AckEvent& out);

  util::Mutex mutex_;  // guards everything below
  struct Lane {
    util::Condition cond;
    uint64_t news = 0;      // counts the wake-ups
    int awaiting_news = 0;  // calls of AwaitNews
  };
  Lane lanes_[k_lanes];
  size_t next_lane_ = k_news_lane;
  Entries ack_event_l_;         // by ascending number
  uint64_t session_ = 0;        // counts the calls of Clear
  std::list<Waiter*> waiters_;  // requests in flight
  uint64_t last_number_ = 0;    // of the newest event
  size_t unawaited_count_ = 0;  // events that no request can wait for
  size_t kept_count_ = 0;       // events kept for requests in flight
};

}  // namespace zeb::mqtt
