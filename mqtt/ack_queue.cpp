// Which request an event belongs to, who is woken, and what is kept.
#include "mqtt/ack_queue.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "util/log.h"

namespace zeb::mqtt {

// An exception leaves the queue as it was.
AckQueue::Waiter::Waiter(AckQueue& queue, MsgType awaited, int message_id)
    : queue_(queue), awaited_(awaited), message_id_(message_id) {
  const util::MutexLock lock(queue.mutex_);
  queue.waiters_.reserve(queue.waiters_.size() + 1);
  if (queue.free_bells_.empty()) {
    queue.free_bells_.reserve(queue.bells_.size() + 1);
    queue.free_bells_.push_back(&queue.bells_.emplace_back());
  }
  bell_ = queue.free_bells_.back();
  queue.free_bells_.pop_back();
  queue.waiters_.push_back(this);
}

// A request that gives up may leave an answer behind, and another one may await the same.
AckQueue::Waiter::~Waiter() {
  const util::MutexLock lock(queue_.mutex_);
  auto& waiters = queue_.waiters_;
  waiters.erase(std::find(waiters.begin(), waiters.end(), this));
  queue_.free_bells_.push_back(bell_);
  if (queue_.ended_ && !queue_.end_taken_)  // others may have left the end to this one
    for (Waiter* waiter : waiters) waiter->bell_->Broadcast();
  if (answer_.empty()) return;
  if (Waiter* const owner = queue_.Place(answer_, false)) owner->bell_->Broadcast();
}

bool AckQueue::Waiter::Awaits(const AckEvent& event) const {
  return awaited_ == event.type && !ended_ && (message_id_ <= 0 || message_id_ == event.message_id);
}

void AckQueue::Enqueue(AckEvent event) {
  const bool debug = util::LogEnabled(LOG_DEBUG);  // before the lock, because the log may be slow
  Entries entry;
  if (event.type != MsgType::RESERVED) entry.push_back({0, {}, std::move(event)});
  util::MutexLock lock(mutex_);
  if (entry.empty()) {
    ended_ = true;
    for (Waiter* waiter : waiters_) waiter->bell_->Broadcast();
    return;
  }
  entry.front().number = ++last_number_;
  // For a request still to come any time in the past will do, which saves two looks at a clock.
  if (!waiters_.empty()) entry.front().arrived = util::Moment::Now();
  Waiter* const owner = Place(entry, debug);
  if (owner == nullptr) return;
  // The owner needs the lock as soon as it wakes. It may be gone by then, but its condition is not.
  util::Condition* const bell = owner->bell_;
  lock.Unlock();
  bell->Broadcast();
}

// Gives the event to the oldest request that awaits it and has no answer yet, and returns that request; the
// caller wakes it. Otherwise the event is listed for all.
AckQueue::Waiter* AckQueue::Place(Entries& entry, bool debug) {
  const AckEvent& event = entry.front().event;
  const bool awaitable = Codec::IsAck(event.type);
  const auto found = std::find_if(waiters_.begin(), waiters_.end(), [&](const Waiter* waiter) {
    return waiter->answer_.empty() && waiter->Awaits(event);
  });
  Waiter* const owner = found != waiters_.end() ? *found : nullptr;
  owner != nullptr ? owner->answer_.splice(owner->answer_.end(), entry) : List(entry);
  for (Waiter* waiter : waiters_) {
    const bool news =
        awaitable && (owner == nullptr || owner == waiter || waiter->awaited_ == MsgType::RESERVED);
    if (news) waiter->news_ = true;
    if (waiter != owner && (news || (debug && owner == nullptr))) waiter->bell_->Broadcast();
  }
  return owner;
}

// Keeps the list in order and within its bounds. Properties that nobody asked for may be 128 KiB.
void AckQueue::List(Entries& entry) {
  AckEvent& event = entry.front().event;
  if (AckRecords* const records = event.records.get()) {
    records->connect_ack.properties = {};
    records->subscription_ack.properties = {};
    records->unsubscription_ack.properties = {};
  }
  if (!Codec::IsAck(event.type)) ++unawaited_count_;
  auto place = ack_event_l_.end();
  while (place != ack_event_l_.begin() && std::prev(place)->number > entry.front().number) --place;
  ack_event_l_.splice(place, entry);
  auto oldest = ack_event_l_.begin();
  if (unawaited_count_ > k_max_unawaited) {
    while (Codec::IsAck(oldest->event.type)) ++oldest;
  } else if (ack_event_l_.size() <= k_max_events) {
    return;
  }
  if (!Codec::IsAck(oldest->event.type)) --unawaited_count_;
  ack_event_l_.erase(oldest);
}

AckQueue::Look AckQueue::Dequeue(Waiter& waiter, AckEvent& out, int64_t timeout_us) {
  const int64_t deadline_us = util::MonotonicUs() + timeout_us;
  const util::MutexLock lock(mutex_);
  for (bool timed_out = false;;) {
    Look look = Next(waiter, out);
    if (look.verdict != Verdict::kNothing) return look;
    if (timed_out) {
      look.queued = static_cast<size_t>(
          std::count_if(ack_event_l_.begin(), ack_event_l_.end(),
                        [&](const Entry& entry) { return entry.event.type != waiter.awaited_; }));
      return look;
    }
    const int64_t left_us = std::max<int64_t>(deadline_us - util::MonotonicUs(), 0);
    timed_out = left_us == 0 || waiter.bell_->WaitUntil(mutex_, left_us) == kTimeout;
  }
}

// What there is for the waiter: a listed event older than its answer, its answer, the end, or nothing.
AckQueue::Look AckQueue::Next(Waiter& waiter, AckEvent& out) {
  // Numbers ascend, so the walk from the back takes as many steps as there are new events.
  auto entry = ack_event_l_.end();
  while (entry != ack_event_l_.begin() && std::prev(entry)->number > waiter.seen_) --entry;
  const uint64_t answer = waiter.answer_.empty() ? UINT64_MAX : waiter.answer_.front().number;
  for (; !waiter.ended_ && entry != ack_event_l_.end() && entry->number < answer; ++entry) {
    waiter.seen_ = entry->number;
    const Verdict verdict = Judge(waiter, entry->event);
    if (verdict != Verdict::kNothing) return Take(ack_event_l_, entry, verdict, out);
  }
  if (!waiter.ended_ && !waiter.answer_.empty())
    return Take(waiter.answer_, waiter.answer_.begin(), Verdict::kAnswer, out);
  if (!waiter.ended_ && !TakeEnd(waiter)) return {};
  out = {};
  return {Verdict::kEnd, 0, {}};
}

// An event of the awaited type stays for another request that awaits it, even if that has its answer already.
// kNothing: the waiter has nothing to do with the event.
AckQueue::Verdict AckQueue::Judge(const Waiter& waiter, const AckEvent& event) const {
  if (event.type != waiter.awaited_) return Verdict::kForeign;
  if (waiter.Awaits(event)) return Verdict::kAnswer;
  const bool others =
      std::any_of(waiters_.begin(), waiters_.end(), [&](const Waiter* each) { return each->Awaits(event); });
  return others ? Verdict::kNothing : Verdict::kDropped;
}

// What leaves the list can be awaited, so `unawaited_count_` stands.
AckQueue::Look AckQueue::Take(Entries& from, Entries::iterator entry, Verdict verdict, AckEvent& out) {
  Look look{verdict, 0, entry->arrived};
  out.type = entry->event.type;
  out.message_id = entry->event.message_id;
  if (verdict == Verdict::kAnswer) out.records = std::move(entry->event.records);
  if (verdict != Verdict::kForeign) from.erase(entry);
  look.queued = ack_event_l_.size() + (ended_ && !end_taken_ ? 1 : 0);
  for (const Waiter* waiter : waiters_) look.queued += waiter->answer_.size();
  return look;
}

// One request fails at once when the connection ends. A start that waits for CONNACK comes before all others.
bool AckQueue::TakeEnd(const Waiter& waiter) {
  if (!ended_ || end_taken_) return false;
  const bool start_waits = std::any_of(waiters_.begin(), waiters_.end(), [](const Waiter* each) {
    return each->awaited_ == MsgType::CONNACK && each->answer_.empty() && !each->ended_;
  });
  end_taken_ = !start_waits || waiter.awaited_ == MsgType::CONNACK;
  return end_taken_;
}

bool AckQueue::AwaitNews(Waiter& waiter, int64_t timeout_us) {
  const int64_t deadline_us = util::MonotonicUs() + timeout_us;
  const util::MutexLock lock(mutex_);
  waiter.drains_ = true;
  while (!waiter.news_ && !ended_ && !waiter.ended_) {
    const int64_t left_us = deadline_us - util::MonotonicUs();
    if (left_us <= 0 || waiter.bell_->WaitUntil(mutex_, left_us) == kTimeout) break;
  }
  waiter.drains_ = waiter.news_ = false;
  return !ended_ && !waiter.ended_;
}

void AckQueue::TellNews() {
  const util::MutexLock lock(mutex_);
  for (Waiter* waiter : waiters_) {
    waiter->news_ = true;  // one that is just about to await news must not miss them
    if (waiter->drains_) waiter->bell_->Broadcast();
  }
}

void AckQueue::Clear() {
  const util::MutexLock lock(mutex_);
  ack_event_l_.clear();
  unawaited_count_ = 0;
  for (Waiter* waiter : waiters_) {
    waiter->ended_ = true;
    waiter->answer_.clear();
    waiter->bell_->Broadcast();
  }
}

}  // namespace zeb::mqtt
