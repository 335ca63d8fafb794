// Takes the place of syslog() and clock_gettime(). <syslog.h> is left out on purpose: with fortified headers
// it would define the former itself.
#include "tests/support/system.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "tests/support/mailbox.h"

extern "C" void vsyslog(int priority, const char* format, va_list arguments);

namespace zeb::test {
std::atomic<int64_t> suspended_s{0}, wall_clock_s{0};
std::atomic<bool> pass_log_on{false};
std::atomic<int> line_ms{0};

namespace {

const auto& kept = *new Mailbox<LogCapture::Line>;  // never freed: threads may log until the process ends
std::atomic<bool> capturing{false};

__attribute__((format(printf, 2, 0))) void Keep(int priority, const char* format, va_list arguments) {
  if (pass_log_on.load(std::memory_order_relaxed)) return ::vsyslog(priority, format, arguments);
  char text[2'048];
  (void)std::vsnprintf(text, sizeof text, format, arguments);  // also when nobody captures: it reads them
  const int ms = line_ms.load(std::memory_order_relaxed);
  // Relaxed, so that logging orders no two threads while nobody captures and hides no race.
  if (capturing.load(std::memory_order_relaxed)) kept.Push({priority, text});
  if (ms > 0) ::poll(nullptr, 0, ms);
}

}  // namespace

LogCapture::LogCapture() {
  kept.Clear();
  capturing = true;
}

LogCapture::~LogCapture() { capturing = false; }

std::vector<LogCapture::Line> LogCapture::Lines(const std::string& part, size_t count) const {
  return kept.Await(count, [&](const Line& line) { return line.text.find(part) != std::string::npos; });
}

}  // namespace zeb::test

extern "C" {
__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  zeb::test::Keep(priority, format, arguments);
  va_end(arguments);
}
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  zeb::test::Keep(priority, format, arguments);
  va_end(arguments);
}
int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
  const auto add = [now](const auto& seconds) {
    now->tv_sec += static_cast<time_t>(seconds.load(std::memory_order_relaxed));
  };
  if (clock == CLOCK_BOOTTIME) add(zeb::test::suspended_s);
  if (clock == CLOCK_REALTIME) add(zeb::test::wall_clock_s);
  return result;
}
}
