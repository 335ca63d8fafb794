// The queue of inbound events and the judgement of which waiting request an event belongs to. Any thread.
#include "mqtt/ack_queue.h"

#include <algorithm>
#include <utility>

#include "util/log.h"

namespace zeb::mqtt {
namespace {

bool CanBeAwaited(MsgType type) {
  switch (type) {
    case MsgType::RESERVED:
    case MsgType::CONNACK:
    case MsgType::PUBACK:
    case MsgType::PUBREC:
    case MsgType::PUBCOMP:
    case MsgType::SUBACK:
    case MsgType::UNSUBACK:
    case MsgType::PINGRESP:
      return true;
    default:
      return false;
  }
}

// An acknowledgement that nobody asked for may bear 128 KiB of them.
void DropProperties(AckRecords& records) {
  records.connect_ack.properties = {};
  records.subscription_ack.properties = {};
  records.unsubscription_ack.properties = {};
}

}  // namespace

AckQueue::Waiter::Waiter(AckQueue& queue, MsgType awaited, int message_id)
    : queue_(queue), awaited_(awaited), message_id_(message_id) {
  const util::MutexLock lock(queue_.mutex_);
  session_ = queue_.session_;
  queue_.next_lane_ = queue_.next_lane_ + 1 < k_lanes ? queue_.next_lane_ + 1 : k_news_lane + 1;
  lane_ = queue_.next_lane_;
  queue_.waiters_.push_back(this);
}

AckQueue::Waiter::~Waiter() {
  const util::MutexLock lock(queue_.mutex_);
  queue_.Unregister(*this);
}

// For the requests of earlier sessions there is only the end.
bool AckQueue::Waiter::Awaits(const AckEvent& event) const {
  return IsCurrent() && awaited_ == event.type && (message_id_ <= 0 || message_id_ == event.message_id);
}

void AckQueue::Enqueue(AckEvent event) {
  const bool debug = util::LogEnabled(LOG_DEBUG);  // before the lock: the log has one, too, and may be slow
  util::MutexLock lock(mutex_);
  if (event.records != nullptr && !TypeIsAwaited(event.type)) DropProperties(*event.records);
  // For requests still to come any time in the past will do: no two looks at a clock for each message.
  const util::Moment arrived = waiters_.empty() ? util::Moment{} : util::Moment::Now();
  ack_event_l_.push_back({++last_number_, arrived, std::move(event)});
  Entry& entry = ack_event_l_.back();
  const bool awaitable = CanBeAwaited(entry.event.type);
  const bool wakes = awaitable || debug;
  const LaneSet lanes = wakes ? LanesToWake(entry.event, debug) : LaneSet{};
  if (awaitable) {
    KeepForWaiter(entry);
  } else {
    ++unawaited_count_;
  }
  DropOldest();
  if (!wakes) return;
  if (awaitable) return Announce(lock, lanes);
  lock.Unlock();
  Wake(lanes);
}

AckQueue::LaneSet AckQueue::LanesToWake(const AckEvent& event, bool debug) const {
  LaneSet own;
  LaneSet all;
  for (const Waiter* waiter : waiters_) {
    all.set(waiter->lane_);
    if (waiter->Awaits(event)) own.set(waiter->lane_);
  }
  // Those whom it does not concern tell in debug that they left it; without these lines they sleep on.
  LaneSet lanes = own.any() && !debug ? own : all;
  return lanes.set(k_news_lane);
}

// Gives the lock up before it wakes anybody: who wakes needs it at once.
void AckQueue::Announce(util::MutexLock& lock, LaneSet lanes) {
  for (size_t i = 0; i < k_lanes; ++i)
    if (lanes[i]) ++lanes_[i].news;
  if (lanes_[k_news_lane].awaiting_news == 0) lanes.reset(k_news_lane);
  lock.Unlock();
  Wake(lanes);
}

void AckQueue::Wake(LaneSet lanes) {
  for (size_t i = 0; i < k_lanes; ++i)
    if (lanes[i]) lanes_[i].cond.Broadcast();
}

bool AckQueue::TypeIsAwaited(MsgType type) const {
  return std::any_of(waiters_.begin(), waiters_.end(),
                     [&](const Waiter* waiter) { return waiter->IsCurrent() && waiter->awaited_ == type; });
}

bool AckQueue::IsAwaited(const AckEvent& event) const {
  return std::any_of(waiters_.begin(), waiters_.end(),
                     [&](const Waiter* waiter) { return waiter->Awaits(event); });
}

// The first that awaits it and has no answer yet.
void AckQueue::KeepForWaiter(Entry& entry) {
  const auto waiter = std::find_if(waiters_.begin(), waiters_.end(), [&](const Waiter* each) {
    return each->answer_ == 0 && each->Awaits(entry.event);
  });
  if (waiter == waiters_.end()) return;
  (*waiter)->answer_ = entry.number;
  entry.kept_for = *waiter;
  ++kept_count_;
}

// An answer that it leaves behind, because an older one was there for instance, is kept for another request
// that awaits the same or is one event among the others.
void AckQueue::Unregister(Waiter& waiter) {
  waiters_.remove(&waiter);
  if (waiter.answer_ == 0) return;
  const auto answer = std::find_if(ack_event_l_.begin(), ack_event_l_.end(),
                                   [&](const Entry& entry) { return entry.kept_for == &waiter; });
  if (answer == ack_event_l_.end()) return;  // of an earlier session
  answer->kept_for = nullptr;
  --kept_count_;
  KeepForWaiter(*answer);
  DropOldest();
}

// Makes room for one event more that is not kept, at the cost of what can be missed best.
void AckQueue::DropOldest() {
  if (unawaited_count_ > k_max_unawaited) {
    const auto oldest = std::find_if(ack_event_l_.begin(), ack_event_l_.end(),
                                     [](const Entry& entry) { return !CanBeAwaited(entry.event.type); });
    ack_event_l_.erase(oldest);
    --unawaited_count_;
  }
  if (ack_event_l_.size() - kept_count_ > k_max_events) {
    const auto oldest = std::find_if(ack_event_l_.begin(), ack_event_l_.end(),
                                     [](const Entry& entry) { return entry.kept_for == nullptr; });
    if (!CanBeAwaited(oldest->event.type)) --unawaited_count_;
    ack_event_l_.erase(oldest);
  }
}

AckQueue::Look AckQueue::Dequeue(Waiter& waiter, AckEvent& out, int64_t timeout_us) {
  const int64_t deadline_us = util::MonotonicUs() + timeout_us;
  bool timed_out = false;
  const util::MutexLock lock(mutex_);
  for (;;) {
    if (!waiter.IsCurrent()) {
      Look ended;
      ended.verdict = Verdict::kEnd;
      return ended;
    }
    // Numbers ascend, so the first unseen event is found from the back in as many steps as there are new
    // ones.
    auto unseen = ack_event_l_.end();
    while (unseen != ack_event_l_.begin() && std::prev(unseen)->number > waiter.seen_) --unseen;
    if (unseen != ack_event_l_.end()) return Judge(waiter, unseen, out);
    if (timed_out) {
      Look nothing;
      nothing.queued = static_cast<size_t>(
          std::count_if(ack_event_l_.begin(), ack_event_l_.end(),
                        [&](const Entry& entry) { return entry.event.type != waiter.awaited_; }));
      return nothing;
    }
    const int64_t left_us = std::max<int64_t>(deadline_us - util::MonotonicUs(), 0);
    timed_out = left_us == 0 || lanes_[waiter.lane_].cond.WaitUntil(mutex_, left_us) == kTimeout;
  }
}

AckQueue::Look AckQueue::Judge(Waiter& waiter, Entries::iterator entry, AckEvent& out) {
  AckEvent& event = entry->event;
  waiter.seen_ = entry->number;
  Look look;
  look.type = event.type;
  look.message_id = event.message_id;
  look.arrived = entry->arrived;
  if (event.type == waiter.awaited_) {
    look.verdict = waiter.Awaits(event) ? Verdict::kMatch
                   : IsAwaited(event)   ? Verdict::kOthers
                                        : Verdict::kDropped;
  } else {
    // A start that waits for CONNACK has the first claim on the end: it must fail at once.
    const bool ended = event.type == MsgType::RESERVED &&
                       (waiter.awaited_ == MsgType::CONNACK || !TypeIsAwaited(MsgType::CONNACK));
    look.verdict = ended ? Verdict::kEnd : Verdict::kForeign;
  }
  const bool stays = look.verdict == Verdict::kOthers || look.verdict == Verdict::kForeign;
  if (look.verdict == Verdict::kMatch) out = std::move(event);
  if (!stays) {  // what is taken can be awaited, so the other count stands
    if (entry->kept_for != nullptr) {
      entry->kept_for->answer_ = 0;
      --kept_count_;
    }
    ack_event_l_.erase(entry);
  }
  look.queued = ack_event_l_.size();
  return look;
}

void AckQueue::AwaitNews(size_t lane, uint64_t* seen, int64_t timeout_us) {
  const int64_t deadline_us = util::MonotonicUs() + timeout_us;
  const util::MutexLock lock(mutex_);
  Lane& own = lanes_[lane];
  ++own.awaiting_news;
  while (own.news <= *seen) {
    const int64_t left_us = deadline_us - util::MonotonicUs();
    if (left_us <= 0 || own.cond.WaitUntil(mutex_, left_us) == kTimeout) break;
  }
  --own.awaiting_news;
  *seen = own.news;
}

void AckQueue::TellNews() {
  util::MutexLock lock(mutex_);
  LaneSet lanes;
  for (size_t i = 0; i < k_lanes; ++i) {
    ++lanes_[i].news;  // for who is just about to await it, too
    lanes[i] = lanes_[i].awaiting_news > 0;
  }
  lock.Unlock();
  Wake(lanes);
}

uint64_t AckQueue::News(size_t lane) {
  const util::MutexLock lock(mutex_);
  return lanes_[lane].news;
}

uint64_t AckQueue::Session() {
  const util::MutexLock lock(mutex_);
  return session_;
}

void AckQueue::Clear() {
  const util::MutexLock lock(mutex_);
  ack_event_l_.clear();
  unawaited_count_ = 0;
  kept_count_ = 0;
  ++session_;
  for (Lane& lane : lanes_) lane.cond.Broadcast();
}

}  // namespace zeb::mqtt
