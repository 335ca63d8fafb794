// Writes to the kernel log through a shell. Any thread.
#include "util/kernel_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace zeb::util {

bool KernelLogWritable() {
  static constexpr char k_kernel_log[] = "/dev/kmsg";
  struct stat status {};
  // An echo to a missing device would create a regular file, which would then fill the disk.
  if (::stat(k_kernel_log, &status) != 0 || !S_ISCHR(status.st_mode)) return false;
  return ::faccessat(AT_FDCWD, k_kernel_log, W_OK, AT_EACCESS) == 0;
}

void RunKernelLogEcho(const char* command) {
  // The shell executes this first line before it reads the command, so that even a syntax error stays silent.
  // Closing the streams, unlike redirecting them, needs no file that could be missing.
  const std::string silent = std::string("exec >&- 2>&-\n") + command;
  [[maybe_unused]] const int ignored = std::system(silent.c_str());
}

}  // namespace zeb::util
