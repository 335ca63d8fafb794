// The kernel-log echo through a shell. Any thread.
#include "util/kernel_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace zeb::util {

bool KernelLogWritable() {
  static constexpr char k_kernel_log[] = "/dev/kmsg";
  struct stat status {};
  // Were it a plain file, each echo would fill the disk; were it missing, create it.
  if (::stat(k_kernel_log, &status) != 0 || !S_ISCHR(status.st_mode)) return false;
  return ::faccessat(AT_FDCWD, k_kernel_log, W_OK, AT_EACCESS) == 0;
}

void RunKernelLogEcho(const char* command) {
  // A line of its own, which the shell has run before it even reads the command: so a syntax error stays
  // silent too. Closing needs no file that could be missing.
  const std::string silent = std::string("exec >&- 2>&-\n") + command;
  [[maybe_unused]] const int ignored = std::system(silent.c_str());
}

}  // namespace zeb::util
