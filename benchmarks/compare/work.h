// One measurement of one client, in a process of its own: nothing that an earlier one left behind counts, and
// one that hangs is ended.
#pragma once

#include "benchmarks/compare/world.h"

namespace zeb::bench {

struct Work {
  enum class Kind {
    kPublish,  // value: microseconds of one publish, the median
    kConnect,  // the same of connect and disconnect
    kFlood,    // microseconds an inbound message, until all have come and are acknowledged
    kSpeedUp,  // how many times the rate of one thread all `threads` have
    kIdle,     // wake-ups a minute
    kMemory,   // kilobytes of a further client
    kFileSize,
  };
  Kind kind = Kind::kPublish;
  int operations = 0;  // of each thread, as many as fit a second; messages of a flood, seconds of idling,
                       // further clients
  int qos = 1;
  int round_trip_ms = 0;
  size_t payload = 40;         // bytes
  int clients = 1;             // in the process
  int threads = 1;             // of each client
  Cores client = Cores::kAll;  // with kAllButLast the broker has the last one
  const char* file = "";       // of kFileSize
};

struct Outcome {
  char fault[96] = "it did not come to an end";  // empty: all went well
  double value = 0;                              // see Work::Kind
  double p99_us = 0, cpu_us = 0;                 // an operation; the client's process alone
  double per_second = 0;                         // operations of all threads together
};

/// Starts at once; one after the other, except for idle ones.
class Measurement {
 public:
  Measurement(World& world, const Maker& maker, const Work& work);
  [[nodiscard]] Outcome Collect();

 private:
  int pipe_[2] = {-1, -1};
  pid_t child_ = -1;
};

}  // namespace zeb::bench
