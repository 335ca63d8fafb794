// Gives one thread at a time the turn to write to a connection, so that the units of different threads never
// interleave. Any thread.
#pragma once

#include <list>

#include "platform/linux/deadline.h"
#include "util/condition.h"
#include "util/mutex.h"

namespace zeb::util {

/// Not a mutex: the holder waits for the network, so threads that wait for the turn give up at their own
/// deadlines or when the connection ends. The turn is passed on in order of arrival. Otherwise a thread that
/// writes without a pause would starve the rest.
class SendTurn {
 public:
  /// Waits for the turn. Returns true if the caller has it and must give it back with Give, false if the
  /// deadline passed first or sending is refused for good.
  [[nodiscard]] bool Take(const Deadline& deadline);

  /// Gives the turn back. With `refuse`, nobody ever gets it again.
  void Give(bool refuse);

  /// From now on nobody gets the turn. Threads that wait for it return.
  void Refuse();

  [[nodiscard]] bool Refused();

 private:
  Mutex mutex_;  // guards all below
  Condition changed_;
  bool taken_ = false;
  bool refused_ = false;
  std::list<const Deadline*> waiting_;  // oldest first; an entry only marks its waiter's place
};

}  // namespace zeb::util
