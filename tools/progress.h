// Shows the progress of publishing on standard error if that is a terminal. Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "tools/ending.h"

namespace zeb::tools {

class Progress {
 public:
  /// `total_bytes` is the size of the source, if known.
  explicit Progress(std::optional<uint64_t> total_bytes);
  /// Leaves the last line on the terminal.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// Call after each message that was sent; it used up `bytes` of the source.
  void Add(size_t bytes);

 private:
  void Show(Clock::time_point now, const char* end) const;

  const bool terminal_;
  const std::optional<uint64_t> total_bytes_;
  const Clock::time_point begin_ = Clock::now();
  Clock::time_point shown_ = begin_;
  uint64_t messages_ = 0;
  uint64_t bytes_ = 0;
};

/// The bytes of a regular file after its current position. Unknown for anything else.
std::optional<uint64_t> RemainingBytes(int fd);

}  // namespace zeb::tools
