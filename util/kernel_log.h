// Echoes a line into the kernel log, where it stands between the kernel's own suspend and resume lines.
#pragma once

#include <cstdio>
#include <string>

namespace zeb::util {

/// Whether the kernel log can be written: /dev/kmsg is a character device and this process may write it.
bool KernelLogWritable();

/// Runs a shell command of the form `echo "..." > /dev/kmsg`, silently: nothing reaches the standard
/// streams, and a failure is ignored. Blocks for one shell. Call only when KernelLogWritable().
void RunKernelLogEcho(const char* command);

}  // namespace zeb::util

/// `format` wraps the line in an echo to /dev/kmsg; nothing runs where the kernel log cannot be written.
#define ZEB_KERNEL_LOG_ECHO(format, ...)                                  \
  do {                                                                    \
    if (::zeb::util::KernelLogWritable()) {                               \
      char echo_command[4096] = {};                                       \
      ::snprintf(echo_command, sizeof echo_command, format, __VA_ARGS__); \
      ::zeb::util::RunKernelLogEcho(echo_command);                        \
    }                                                                     \
  } while (false)
