// The meeting place of the receive thread, which reports what came in, and the requests that wait for it.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <vector>

#include "mqtt/codec/codec.h"
#include "util/boot_clock.h"
#include "util/condition.h"
#include "util/mutex.h"

namespace zeb::mqtt {

/// What three of the acknowledgements say beyond their type and identifier.
struct AckRecords {
  MqttWrapper::ConnectAck connect_ack;                // CONNACK
  MqttWrapper::SubscriptionAck subscription_ack;      // SUBACK
  MqttWrapper::UnsubscriptionAck unsubscription_ack;  // UNSUBACK
};

/// One inbound packet, as far as a waiting request needs it. Nearly every event is a type and an identifier.
struct AckEvent {
  MsgType type = MsgType::RESERVED;  // RESERVED marks the end of the connection
  uint16_t message_id = 0;
  std::unique_ptr<AckRecords> records;  // of CONNACK, SUBACK and UNSUBACK; otherwise null
};

/// One connection's acknowledgements. An awaited one goes straight to its request. Everything else is listed,
/// so that each request can look at it once, and stays for requests still to come. Any thread.
class AckQueue {
  struct Entry {
    uint64_t number;  // ascending in order of arrival
    util::Moment arrived;
    AckEvent event;
  };
  using Entries = std::list<Entry>;

 public:
  /// Events that no request can wait for (PUBLISH, say) are listed up to this many,
  static constexpr size_t k_max_unawaited = 64;
  /// and all events up to this many. The oldest go first.
  static constexpr size_t k_max_events = 256;

  /// A request's place in the queue, on the stack of the request. It is registered for as long as it lives. A
  /// request registers before it sends, because its answer may come before the send has returned.
  class Waiter {
   public:
    /// A `message_id` of 0 or less accepts any identifier. RESERVED awaits nothing: such a waiter only hears
    /// the news. The queue must outlive the waiter.
    Waiter(AckQueue& queue, MsgType awaited, int message_id);
    ~Waiter();
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

   private:
    friend class AckQueue;
    friend struct SelfMqttImplPeer;
    [[nodiscard]] bool Awaits(const AckEvent& event) const;

    AckQueue& queue_;  // its lock guards all that is not constant
    const MsgType awaited_;
    const int message_id_;
    util::Condition* bell_;  // borrowed from the queue
    Entries answer_;         // one at most
    uint64_t seen_ = 0;      // number of the newest listed event that it has looked at
    bool news_ = false;      // there is something that a drain wakes up for
    bool drains_ = false;    // it is in AwaitNews
    bool ended_ = false;     // Clear has ended it
  };

  enum class Verdict {
    kNothing,  // no event came in time
    kAnswer,   // the awaited acknowledgement
    kDropped,  // the awaited type, but for an identifier that no request awaits; it has left the list
    kForeign,  // an event of another type; it stays in the list
    kEnd,      // the connection has ended
  };
  struct Look {
    Verdict verdict = Verdict::kNothing;
    size_t queued = 0;  // events still there for any request; with kNothing the listed ones of other types
    util::Moment arrived{};  // of the event; zero when no request was registered then
  };

  /// Reports an event. Properties that no request waits for are left out. Events that no request can wait for
  /// wake nobody, except while lines in debug are written: then each request says what it does with them.
  void Enqueue(AckEvent event);

  /// Looks at the next event that this waiter has not seen yet, and waits for one up to `timeout_us` (0 or
  /// more; after a time-out it looks once more). `out` gets the event's type and identifier, and the records
  /// of an answer.
  Look Dequeue(Waiter& waiter, AckEvent& out, int64_t timeout_us);

  /// Waits up to `timeout_us` for news since the last call: the waiter's answer, an acknowledgement for
  /// nobody (for one that awaits nothing: any acknowledgement), TellNews, or the end of the connection.
  /// Returns whether the connection stands.
  bool AwaitNews(Waiter& waiter, int64_t timeout_us);
  /// Wakes everyone in AwaitNews.
  void TellNews();

  /// Forgets the listed events and ends the requests that are registered. The end of the connection stays on
  /// record.
  void Clear();

 private:
  friend struct SelfMqttImplPeer;  // tests look at the events through it

  Waiter* Place(Entries& entry, bool debug);
  void List(Entries& entry);
  Look Next(Waiter& waiter, AckEvent& out);
  Verdict Judge(const Waiter& waiter, const AckEvent& event) const;
  Look Take(Entries& from, Entries::iterator entry, Verdict verdict, AckEvent& out);
  bool TakeEnd(const Waiter& waiter);

  util::Mutex mutex_;             // guards everything below
  std::vector<Waiter*> waiters_;  // in order of registration
  Entries ack_event_l_;           // the listed events, by ascending number
  size_t unawaited_count_ = 0;    // listed events that no request can wait for
  uint64_t last_number_ = 0;      // of the newest event
  bool ended_ = false;            // the connection has ended
  bool end_taken_ = false;        // a request has failed by that
  std::deque<util::Condition> bells_;
  std::vector<util::Condition*> free_bells_;  // has room for all of them
};

}  // namespace zeb::mqtt
