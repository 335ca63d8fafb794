// Where the clients are measured: a fast broker in a process of its own, beside the client and behind a delay
// line, or somebody else's broker.
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

/// The process `pid` (0: this one) may use one core: the first, or the last; or all but the last, or all.
enum class Cores { kFirst, kLast, kAllButLast, kAll };
void UseCores(pid_t pid, Cores cores);

/// Built before any thread is. Puts the process into namespaces of its own where that is allowed.
class World {
 public:
  /// `port` of a broker on 127.0.0.1 that runs already; 0: the fast one.
  World(bool tls, int port);

  /// Sets the delay line for what follows.
  void SetRoundTrip(int milliseconds) { shared_->round_trip_ms = milliseconds; }
  /// The broker next door (0) or behind the delay line.
  [[nodiscard]] Target At(int round_trip_ms) const;
  [[nodiscard]] const Counts& CountsAt(int round_trip_ms) const;
  /// Whether the broker is somebody else's, and counts nothing.
  [[nodiscard]] bool foreign() const { return foreign_; }
  /// Where the broker next door may run; somebody else's is left where it is.
  void PlaceBroker(Cores cores) const;

  std::string without_delay;  ///< Why there is no delay line; empty: there is.
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
