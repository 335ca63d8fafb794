// Where the clients are measured: the benchmark's fast broker, near and behind a delay line, each in a
// process of its own; or a foreign broker. One thread.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "benchmarks/compare/broker.h"
#include "benchmarks/compare/peer.h"
#include "tests/support/temp_files.h"

namespace zeb::bench {

/// Runs `body` in a process that ends with this one.
pid_t ForkHelper(const std::function<void()>& body);

/// Sets the cores that `pid` (0: this process) may use: the first, the last, all but the last, or all.
enum class Cores { kFirst, kLast, kAllButLast, kAll };
void UseCores(pid_t pid, Cores cores);

/// Must be created before any thread. Moves the process into namespaces of its own if that is allowed.
class World {
 public:
  /// `port` is that of a broker that runs on 127.0.0.1, or 0 for the fast one.
  World(bool tls, int port);

  /// Sets the round trip of the delay line from now on.
  void SetRoundTrip(int milliseconds) { shared_->round_trip_ms = milliseconds; }
  /// The near broker (`round_trip_ms` 0) or the one behind the delay line.
  [[nodiscard]] Target At(int round_trip_ms) const;
  [[nodiscard]] const Counts& CountsAt(int round_trip_ms) const;
  /// Whether the broker is a foreign one, which counts nothing.
  [[nodiscard]] bool foreign() const { return foreign_; }
  /// Sets the cores of the near broker. A foreign one is left alone.
  void PlaceBroker(Cores cores) const;

  std::string without_delay;  ///< Why there is no delay line; empty if there is one.
  std::string notes;          ///< What else could not be arranged.

 private:
  struct Shared {
    std::atomic<int> round_trip_ms{0};
    Counts near, far;
  };
  void HideKernelLog();
  void BuildDelayLine(SSL_CTX* tls);
  int StartBroker(const char* address, SSL_CTX* tls, Counts& counts);  // returns its port

  Shared* shared_ = nullptr;
  std::unique_ptr<test::TempFiles> files_;  // with TLS
  std::string ca_file_;
  const bool foreign_;
  int near_port_, far_port_ = 0;
  pid_t near_broker_ = 0, last_broker_ = 0;
};

}  // namespace zeb::bench
