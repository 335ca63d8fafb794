// Which of the packets that went out on a connection its peer's TCP has taken. The watch makes no system
// call. Its owner's lock guards it.
#pragma once

#include <cstdint>

namespace zeb::mqtt {

/// Threads that publish without a pause hardly ever find the send queue empty themselves. Once one of them
/// does, everything that was written before has left.
class SendQueueWatch {
 public:
  /// Numbers a packet that has been written.
  uint64_t Add() { return ++written_; }
  /// The send queue is empty at this moment.
  void SeenEmpty() { drained_ = written_; }
  [[nodiscard]] bool HasLeft(uint64_t number) const { return number <= drained_; }

 private:
  uint64_t written_ = 0;
  uint64_t drained_ = 0;
};

}  // namespace zeb::mqtt
