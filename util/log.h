// Log lines: syslog with the function, the source line and the message. The arguments of a line are not
// evaluated while setlogmask() disables its priority. Any thread.
#pragma once

#include <syslog.h>

namespace zeb::util {

/// Whether lines of this priority are written.
inline bool LogEnabled(int priority) { return (::setlogmask(0) & LOG_MASK(priority)) != 0; }

}  // namespace zeb::util

/// Writes "<function> <line>: <body>". `body` must be a literal, so that the compiler checks the arguments.
#define ZEB_LOG_AS(function, priority, body, ...)                            \
  do {                                                                       \
    if (::zeb::util::LogEnabled(priority))                                   \
      ::syslog(priority, "%s %d: " body, function, __LINE__, ##__VA_ARGS__); \
  } while (false)

/// The same with the enclosing function's signature.
#define ZEB_LOG(priority, body, ...) ZEB_LOG_AS(__PRETTY_FUNCTION__, priority, body, ##__VA_ARGS__)
