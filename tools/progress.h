// What publishing has done so far, on a terminal's standard error; silent anywhere else. Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "tools/ending.h"

namespace zeb::tools {

class Progress {
 public:
  /// `total_bytes` is what there is to send, where that is known.
  explicit Progress(std::optional<uint64_t> total_bytes);
  /// Leaves the last line standing.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// A message was sent; `bytes` of the source are done by it.
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

/// Bytes that are left of a regular file from its position on; of anything else nothing is known.
std::optional<uint64_t> RemainingBytes(int fd);

}  // namespace zeb::tools
