// What the library writes to syslog, kept for a test to look at. Any thread.
#pragma once

#include <string>
#include <vector>

namespace zeb::test {

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

  /// Lines that contain `part`, once there are `count` or the deadline has passed.
  [[nodiscard]] std::vector<Line> Lines(const std::string& part = "", size_t count = 0) const;
  [[nodiscard]] int Count(const std::string& part) const { return static_cast<int>(Lines(part).size()); }
  [[nodiscard]] bool Contains(const std::string& part) const { return Count(part) > 0; }
  [[nodiscard]] bool WaitFor(const std::string& part, size_t count = 1) const {
    return Lines(part, count).size() >= count;
  }
};

/// While true, lines go to the system's log and nowhere else.
void PassLogOn(bool pass_on);

}  // namespace zeb::test
