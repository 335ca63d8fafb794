// Writes messages with write(2), so that no buffer holds any when the program ends.
#include "tools/output.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace zeb::tools {

bool WriteOutput(std::string_view bytes, Ending& ending) {
  while (!bytes.empty()) {
    pollfd fds[] = {{STDOUT_FILENO, POLLOUT, 0}, {ending.fd(), POLLIN, 0}};
    if (::poll(fds, std::size(fds), -1) < 0) continue;
    if (fds[0].revents == 0) return false;
    // A writable pipe accepts this much without blocking.
    const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
    const int error = errno;
    if (written > 0) bytes.remove_prefix(static_cast<size_t>(written));
    if (written >= 0 || error == EINTR || error == EAGAIN) continue;
    if (error == EPIPE)
      ending.Begin(kDone);  // the reader has gone
    else
      ending.Begin(kOutput, std::string("standard output: ") + std::strerror(error));
    return false;
  }
  return true;
}

void Say(const std::string& text) {
  const char* const clear_line = ::isatty(STDERR_FILENO) == 1 ? "\r\033[K" : "";  // erases the progress
  std::fprintf(stderr, "%szebmqtt: %s\n", clear_line, text.c_str());
}

void OpenLog(bool debug) {
  ::openlog("zebmqtt", debug ? LOG_PID | LOG_PERROR : LOG_PID, LOG_USER);
  ::setlogmask(LOG_UPTO(debug ? LOG_DEBUG : LOG_WARNING));
}

}  // namespace zeb::tools
