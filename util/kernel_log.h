// Writes lines to the kernel log, where they appear among the kernel's suspend and resume messages. Any
// thread.
#pragma once

#include <cstdio>
#include <string>

namespace zeb::util {

/// Whether /dev/kmsg is a character device that this process may write to.
bool KernelLogWritable();

/// Runs a shell command of the form `echo "..." > /dev/kmsg` and waits for the shell to end. Prints nothing
/// to the standard streams and ignores failures. Call only if KernelLogWritable().
void RunKernelLogEcho(const char* command);

}  // namespace zeb::util

/// `format` is the whole command, `echo "..." > /dev/kmsg`. Runs nothing if the kernel log is not writable.
#define ZEB_KERNEL_LOG_ECHO(format, ...)                                  \
  do {                                                                    \
    if (::zeb::util::KernelLogWritable()) {                               \
      char echo_command[4096] = {};                                       \
      ::snprintf(echo_command, sizeof echo_command, format, __VA_ARGS__); \
      ::zeb::util::RunKernelLogEcho(echo_command);                        \
    }                                                                     \
  } while (false)
