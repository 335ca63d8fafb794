// The log line of a client, with the client's tag in brackets before the body. For functions that have a
// Tag(). Any thread.
#pragma once

#include <string>

#include "util/log.h"

/// Writes "<function> <line>: [<tag>] <body>", or without the brackets while the tag is empty.
#define CLIENT_LOG_AS(function, priority, body, ...)                                                 \
  do {                                                                                               \
    if (::zeb::util::LogEnabled(priority)) {                                                         \
      const std::string log_tag = Tag();                                                             \
      if (log_tag.empty())                                                                           \
        ::syslog(priority, "%s %d: " body, function, __LINE__, ##__VA_ARGS__);                       \
      else                                                                                           \
        ::syslog(priority, "%s %d: [%s] " body, function, __LINE__, log_tag.c_str(), ##__VA_ARGS__); \
    }                                                                                                \
  } while (false)

/// The same under the enclosing function's own signature.
#define CLIENT_LOG(priority, body, ...) CLIENT_LOG_AS(__PRETTY_FUNCTION__, priority, body, ##__VA_ARGS__)
