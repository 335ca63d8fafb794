// Takes the place of syslog(). <syslog.h> is left out on purpose: with fortified headers it would define
// these functions itself.
#include "tests/support/log_capture.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "tests/support/mailbox.h"

extern "C" void vsyslog(int priority, const char* format, va_list arguments);

namespace zeb::test {
namespace {

const auto& kept = *new Mailbox<LogCapture::Line>;  // never freed: threads may log until the process ends
std::atomic<bool> capturing{false};
std::atomic<bool> passing_on{false};

__attribute__((format(printf, 2, 0))) void Keep(int priority, const char* format, va_list arguments) {
  if (passing_on.load(std::memory_order_relaxed)) return ::vsyslog(priority, format, arguments);
  // Relaxed, so that logging orders no two threads while nobody captures and hides no race.
  char* text = nullptr;
  if (!capturing.load(std::memory_order_relaxed) || ::vasprintf(&text, format, arguments) < 0) return;
  kept.Push({priority, text});
  std::free(text);
}

}  // namespace

void PassLogOn(bool pass_on) { passing_on = pass_on; }

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
}
