// What the library asks of the system: lines for the log, kept for a test to look at, and clocks, which a
// test moves. Any thread.
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace zeb::test {

/// How far clocks have moved since the test began, for whoever reads them; timers and waits stay as they are.
extern std::atomic<int64_t> suspended_s, wall_clock_s;  // go to CLOCK_BOOTTIME and CLOCK_REALTIME
extern std::atomic<bool> pass_log_on;                   ///< While true, lines go to the system's log alone.
extern std::atomic<int> line_ms;                        ///< What a line costs its writer; 0: nothing.

/// Captures from construction to destruction; at most one at a time.
struct LogCapture {
  struct Line {
    int priority;
    std::string text;
  };
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;

  /// Lines that contain `part`, once there are `count` or the deadline has passed.
  [[nodiscard]] std::vector<Line> Lines(const std::string& part = "", size_t count = 0) const;
  [[nodiscard]] int Count(const std::string& part) const { return static_cast<int>(Lines(part).size()); }
  [[nodiscard]] bool Contains(const std::string& part) const { return Count(part) > 0; }
  [[nodiscard]] bool WaitFor(const std::string& part, size_t count = 1) const {
    return Lines(part, count).size() >= count;
  }
};

}  // namespace zeb::test
