// The log line: syslog with the function, the source line and the message body. Nothing of a line is
// evaluated while setlogmask() holds its priority back. Any thread.
#pragma once

#include <syslog.h>

namespace zeb::util {

/// Whether a line of this priority would be written at all.
inline bool LogEnabled(int priority) { return (::setlogmask(0) & LOG_MASK(priority)) != 0; }

}  // namespace zeb::util

/// Writes "<function> <line>: <body>". `body` is a literal, so that the compiler checks the arguments.
#define ZEB_LOG_AS(function, priority, body, ...)                            \
  do {                                                                       \
    if (::zeb::util::LogEnabled(priority))                                   \
      ::syslog(priority, "%s %d: " body, function, __LINE__, ##__VA_ARGS__); \
  } while (false)

/// The same under the enclosing function's own signature.
#define ZEB_LOG(priority, body, ...) ZEB_LOG_AS(__PRETTY_FUNCTION__, priority, body, ##__VA_ARGS__)
