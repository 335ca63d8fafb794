// Passes the turn to write from thread to thread, in order of arrival. Any thread.
#include "platform/linux/send_turn.h"

namespace zeb::util {

bool SendTurn::Take(const Deadline& deadline) {
  MutexLock lock(mutex_);
  if (!taken_ && waiting_.empty() && !refused_) {
    taken_ = true;
    return true;
  }

  const auto place = waiting_.insert(waiting_.end(), &deadline);
  const auto my_turn = [&] { return !taken_ && waiting_.begin() == place; };
  while (!refused_ && !my_turn()) {
    const int64_t remaining_us = deadline.RemainingUs();
    if (remaining_us == 0) break;
    (void)changed_.WaitUntil(mutex_, remaining_us);  // the loop checks why it woke up
  }
  const bool mine = !refused_ && my_turn();
  if (mine) taken_ = true;
  waiting_.erase(place);
  changed_.Broadcast();  // the next waiter may now be the first
  return mine;
}

void SendTurn::Give(bool refuse) {
  MutexLock lock(mutex_);
  taken_ = false;
  refused_ = refused_ || refuse;
  if (!waiting_.empty()) changed_.Broadcast();
}

void SendTurn::Refuse() {
  MutexLock lock(mutex_);
  refused_ = true;
  changed_.Broadcast();
}

bool SendTurn::Refused() {
  MutexLock lock(mutex_);
  return refused_;
}

}  // namespace zeb::util
