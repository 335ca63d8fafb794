// A delay line between two network namespaces: a packet that leaves one tunnel interface enters the other one
// half a round trip later. The netem queue would do the same, but many build machines lack it. One thread.
#pragma once

#include <atomic>

namespace zeb::bench {

/// Creates the interface in the calling thread's network namespace. Returns -1 if that is not allowed.
int OpenTunnel(const char* name);

/// Carries packets until the process ends.
[[noreturn]] void RunDelayLine(int one, int other, const std::atomic<int>& round_trip_ms);

}  // namespace zeb::bench
