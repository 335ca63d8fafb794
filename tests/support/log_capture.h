// What the library writes to syslog, kept for a test to look at. Any thread.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace zeb::test {

/// For what must happen: long enough for the slowest machine, never reached by a passing test.
constexpr std::chrono::milliseconds k_deadline(20'000);

/// Captures from construction to destruction; at most one at a time.
class LogCapture {
 public:
  struct Line {
    int priority;
    std::string text;
  };
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;

  [[nodiscard]] std::vector<Line> Lines() const;
  /// Lines that contain `part`.
  [[nodiscard]] int Count(const std::string& part) const;
  [[nodiscard]] bool Contains(const std::string& part) const { return Count(part) > 0; }
  /// Waits until at least `count` lines contain `part`.
  [[nodiscard]] bool WaitFor(const std::string& part, int count = 1) const;
};

}  // namespace zeb::test
