// A wire with a delay, between two network namespaces: every packet that leaves one tunnel interface enters
// the other half a round trip later. The kernels of build machines often lack the netem queue that would do
// the same.
#pragma once

#include <atomic>

namespace zeb::bench {

/// Creates the interface in the calling thread's network namespace; -1: not allowed.
int OpenTunnel(const char* name);

/// Carries packets for as long as the process lives.
[[noreturn]] void RunDelayLine(int one, int other, const std::atomic<int>& round_trip_ms);

}  // namespace zeb::bench
