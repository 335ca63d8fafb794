// How a run ends: the exit codes, the failures that end it from inside, and the signals, deadline and lost
// reader that end it from outside.
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

/// The exit codes of the program, as --help and the man page document them.
enum ExitCode : int {
  kDone = 0,
  kUsage = 1,         // wrong options, or a file that cannot be read
  kNoConnection = 2,  // broker unreachable or not trusted, or it refused
  kFailed = 3,        // a message, subscription or ping
  kLost = 4,          // the connection was lost
  kTimedOut = 5,      // -W passed before a connection, or -C messages, came
  kOutput = 6,        // standard output could not be written
  kSignal = 128,      // plus the signal's number
};

/// Ends the run with this exit code. If the text is empty, nothing is printed.
struct Failure : std::runtime_error {
  Failure(int exit_code, const std::string& text) : std::runtime_error(text), code(exit_code) {}
  int code;
};

/// A descriptor that becomes readable with the first Set and stays so. Any thread.
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

/// Holds whether the run ends, and with which code and text. Any thread.
class Ending {
 public:
  /// Only the first call counts.
  void Begin(int code, const std::string& text = {});
  [[nodiscard]] bool begun() const;
  [[nodiscard]] int fd() const { return flag_.fd(); }  // becomes readable once begun
  /// Throws the Failure if the end has begun.
  void Check() const;

 private:
  mutable std::mutex mutex_;  // guards failure_
  std::optional<Failure> failure_;
  Flag flag_;
};

/// A thread that begins the ending at a signal, at the deadline, or, if `watch_output`, when the reader of
/// standard output has gone. It then stops the client, so that no call on the main thread keeps waiting. Must
/// be created before any other thread, because all inherit the blocked signals. A second signal kills the
/// process.
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
  Flag over_;  // set when the main thread is done
  std::thread thread_;
};

/// The time-out for poll(2): the milliseconds until `until`, rounded up and not below 0, or -1 without one.
int PollTimeout(std::optional<Clock::time_point> until);

}  // namespace zeb::tools
