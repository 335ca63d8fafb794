// One measurement of one client. It runs in a process of its own, so that earlier ones leave no trace in it
// and it can be ended if it hangs.
#pragma once

#include "benchmarks/compare/world.h"

namespace zeb::bench {

struct Work {
  enum class Kind {
    kPublish,  // value: microseconds per publish, the median
    kConnect,  // the same for connect and disconnect
    kFlood,    // microseconds per inbound message, until all have arrived and are acknowledged
    kSpeedUp,  // the rate of all `threads`, in multiples of the rate of one thread
    kIdle,     // wake-ups per minute
    kMemory,   // kilobytes per further client
    kFileSize,
  };
  Kind kind = Kind::kPublish;
  int operations = 0;  // per thread, as many as fit in a second; messages of a flood; seconds of idling;
                       // further clients
  int qos = 1;
  int round_trip_ms = 0;
  size_t payload = 40;         // bytes
  int clients = 1;             // in one process
  int threads = 1;             // per client
  Cores client = Cores::kAll;  // with kAllButLast, the broker has the last core
  const char* file = "";       // for kFileSize
};

struct Outcome {
  char fault[96] = "it did not come to an end";  // empty if there was none
  double value = 0;                              // see Work::Kind
  double p99_us = 0, cpu_us = 0;                 // per operation; only the client's process
  double per_second = 0;                         // operations of all threads
};

/// Starts in the constructor. Only one runs at a time, except for kIdle and kMemory.
class Measurement {
 public:
  Measurement(World& world, const Maker& maker, const Work& work);
  [[nodiscard]] Outcome Collect();

 private:
  int pipe_[2] = {-1, -1};
  pid_t child_ = -1;
};

}  // namespace zeb::bench
