// A file descriptor that closes itself and is never 0, 1 or 2.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zeb::util {

/// Owns one descriptor, or none (-1). Movable. Not thread-safe.
class ScopedFd {
 public:
  ScopedFd() = default;
  explicit ScopedFd(int fd) : fd_(AboveStandardStreams(fd)) {}
  ~ScopedFd() { Reset(); }
  ScopedFd(ScopedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  /// Hands the descriptor over to the caller.
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }
  void Reset() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

 private:
  // If the process has closed its standard streams, a new descriptor can be 0, 1 or 2. Whatever the
  // application prints would then go there.
  static int AboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(fd);
    errno = error;
    return moved;
  }

  int fd_ = -1;
};

}  // namespace zeb::util
