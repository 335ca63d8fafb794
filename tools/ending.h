// How a run ends: the exit codes, the failure that ends it from inside, and what ends it from outside.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "mqtt/mqtt_wrapper.h"

namespace zeb::tools {

using mqtt::MqttWrapper;
using Clock = std::chrono::steady_clock;

/// What the program returns; documented in --help and the man page.
enum ExitCode : int {
  kDone = 0,
  kUsage = 1,         // wrong options, or a file of theirs that cannot be read
  kNoConnection = 2,  // not reachable, not trusted, or refused by the broker
  kFailed = 3,        // a message, subscription or ping
  kLost = 4,          // the connection ended by itself
  kTimedOut = 5,      // -W passed before a connection, or -C messages, came
  kOutput = 6,        // standard output could not be written
  kSignal = 128,      // plus the signal's number
};

/// Ends the run with this exit code. An empty text: there is nothing to say.
struct Failure : std::runtime_error {
  Failure(int exit_code, const std::string& text) : std::runtime_error(text), code(exit_code) {}
  int code;
};

/// A descriptor that is readable from the first Set on. Any thread.
class Flag {
 public:
  Flag();
  ~Flag();
  Flag(const Flag&) = delete;
  Flag& operator=(const Flag&) = delete;
  void Set() const;
  [[nodiscard]] int fd() const { return fd_; }

 private:
  int fd_;
};

/// Says once that the run ends, with which code and text. Any thread.
class Ending {
 public:
  /// The first call counts.
  void Begin(int code, const std::string& text = {});
  [[nodiscard]] bool begun() const;
  [[nodiscard]] int fd() const { return flag_.fd(); }  // readable once begun
  /// Throws the Failure once the end has begun.
  void Check() const;

 private:
  mutable std::mutex mutex_;  // guards failure_
  std::optional<Failure> failure_;
  Flag flag_;
};

/// A thread that turns a signal, the deadline and, when told so, the loss of standard output's reader into
/// the ending, and then stops the client, so that no call of the main thread waits on. Made before any other
/// thread: all inherit the blocked signals. A second signal kills the process.
class Watch {
 public:
  Watch(MqttWrapper& client, Ending& ending, bool watch_output, std::optional<Clock::time_point> deadline);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

 private:
  void Run();
  void AwaitEnding();

  MqttWrapper& client_;
  Ending& ending_;
  const bool watch_output_;
  const std::optional<Clock::time_point> deadline_;
  int signal_fd_ = -1;
  Flag over_;  // the main thread is done
  std::thread thread_;
};

/// Milliseconds until then for poll(2), rounded up, never negative; -1 for no end.
int PollTimeout(std::optional<Clock::time_point> until);

}  // namespace zeb::tools
