// Takes the place of syslog(). <syslog.h> is left out on purpose: with fortified headers it would define
// these functions itself.
#include "tests/support/log_capture.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace zeb::test {
namespace {

struct Store {
  std::recursive_mutex mutex;
  std::condition_variable_any added;
  std::vector<LogCapture::Line> lines;
};
Store& store = *new Store;  // never freed: threads may log until the process ends
std::atomic<bool> capturing{false};

__attribute__((format(printf, 2, 0))) void Keep(int priority, const char* format, va_list arguments) {
  // Relaxed, so that logging orders no two threads while nobody captures and hides no race.
  char* text = nullptr;
  if (!capturing.load(std::memory_order_relaxed) || ::vasprintf(&text, format, arguments) < 0) return;
  const std::lock_guard<std::recursive_mutex> lock(store.mutex);
  store.lines.push_back({priority, text});
  std::free(text);
  store.added.notify_all();
}

}  // namespace

LogCapture::LogCapture() {
  const std::lock_guard<std::recursive_mutex> lock(store.mutex);
  store.lines.clear();
  capturing = true;
}

LogCapture::~LogCapture() { capturing = false; }

std::vector<LogCapture::Line> LogCapture::Lines() const {
  const std::lock_guard<std::recursive_mutex> lock(store.mutex);
  return store.lines;
}

int LogCapture::Count(const std::string& part) const {
  const auto lines = Lines();
  const auto has = [&](const Line& line) { return line.text.find(part) != std::string::npos; };
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), has));
}

bool LogCapture::WaitFor(const std::string& part, int count) const {
  std::unique_lock<std::recursive_mutex> lock(store.mutex);
  return store.added.wait_for(lock, k_deadline, [&] { return Count(part) >= count; });
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
