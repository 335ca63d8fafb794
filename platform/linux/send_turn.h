// Whose turn it is to write to a connection, so that two threads' units never interleave. All threads.
#pragma once

#include <list>

#include "platform/linux/deadline.h"
#include "util/condition.h"
#include "util/mutex.h"

namespace zeb::util {

/// Not a mutex: the holder waits for the network, and those who wait for the turn give up at their own
/// deadlines or when the connection ends. The turn goes round in the order of arrival; otherwise a thread
/// that writes without a pause, and waits for the network only while it holds the turn, would starve the
/// rest.
class SendTurn {
 public:
  /// True when the turn is the caller's, to be given back by Give. False when the deadline passed first or
  /// sending is refused for good.
  [[nodiscard]] bool Take(const Deadline& deadline);

  /// Gives the turn back; with `refuse` nobody ever gets it again.
  void Give(bool refuse);

  /// Nobody gets the turn from now on; those who wait for it return.
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
