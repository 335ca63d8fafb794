// One line, overwritten a few times a second.
#include "tools/progress.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>

namespace zeb::tools {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(200);

std::string Whole(double value) { return std::to_string(std::llround(value)); }

std::string Size(uint64_t bytes) {
  if (bytes < 1'000) return std::to_string(bytes) + " B";
  char text[32] = {};
  std::snprintf(text, sizeof text, "%.1f kB", static_cast<double>(bytes) / 1'000);
  return text;
}

}  // namespace

Progress::Progress(std::optional<uint64_t> total_bytes)
    : terminal_(::isatty(STDERR_FILENO) == 1), total_bytes_(total_bytes) {}

Progress::~Progress() { Show(Clock::now(), "\n"); }

void Progress::Add(size_t bytes) {
  ++messages_;
  bytes_ += bytes;
  const auto now = Clock::now();
  if (now - shown_ < kInterval) return;
  shown_ = now;
  Show(now, "");
}

void Progress::Show(Clock::time_point now, const char* end) const {
  if (!terminal_) return;
  const double seconds = std::chrono::duration<double>(now - begin_).count();
  const double rate = seconds > 0 ? static_cast<double>(messages_) / seconds : 0;
  std::string line = std::to_string(messages_) + (messages_ == 1 ? " message" : " messages");
  if (messages_ > 1) line += ", " + Whole(rate) + "/s";
  line += ", " + Size(bytes_);
  if (total_bytes_ && bytes_ > 0 && bytes_ < *total_bytes_) {
    const double share = static_cast<double>(bytes_) / static_cast<double>(*total_bytes_);
    line += " of " + Size(*total_bytes_) + " (" + Whole(100 * share) + "%), " +
            Whole(seconds / share - seconds) + " s left";
  }
  std::fprintf(stderr, "\r%s\033[K%s", line.c_str(), end);
}

std::optional<uint64_t> RemainingBytes(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  const off_t position = ::lseek(fd, 0, SEEK_CUR);
  if (position < 0 || position > status.st_size) return std::nullopt;
  return static_cast<uint64_t>(status.st_size - position);
}

}  // namespace zeb::tools
