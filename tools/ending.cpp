// One thread reads signals from a descriptor. That avoids handlers, with their limits on what they may call.
#include "tools/ending.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <limits>
#include <system_error>

namespace zeb::tools {
namespace {

constexpr int kStopAgainMs = 100;  // repeated, because the main thread may just be starting the client

// The signals that end the program, unless the caller has them ignored (nohup, or "&" in a script).
sigset_t EndingSignals() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    if (::sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) ::sigaddset(&set, number);
  }
  return set;
}

int Checked(int fd, const char* what) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
  return fd;
}

}  // namespace

Flag::Flag() : fd_(Checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {}
Flag::~Flag() { ::close(fd_); }

void Flag::Set() const {
  const uint64_t one = 1;
  (void)!::write(fd_, &one, sizeof one);  // fails only at the maximum count: it is set then
}

void Ending::Begin(int code, const std::string& text) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!failure_) failure_.emplace(code, text);
  flag_.Set();
}

bool Ending::begun() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return failure_.has_value();
}

void Ending::Check() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (failure_) throw Failure(*failure_);
}

int PollTimeout(std::optional<Clock::time_point> until) {
  if (!until) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*until - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, std::numeric_limits<int>::max()));
}

Watch::Watch(MqttWrapper& client, Ending& ending, bool watch_output,
             std::optional<Clock::time_point> deadline)
    : client_(client), ending_(ending), watch_output_(watch_output), deadline_(deadline) {
  const sigset_t signals = EndingSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal_fd_ = Checked(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd");
  thread_ = std::thread([this] { Run(); });
}

Watch::~Watch() {
  over_.Set();
  thread_.join();
  ::close(signal_fd_);
  const sigset_t signals = EndingSignals();
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);  // a signal may cut the closing short
}

void Watch::Run() {
  AwaitEnding();
  const sigset_t signals = EndingSignals();
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  for (pollfd over{over_.fd(), POLLIN, 0}; ::poll(&over, 1, 0) == 0; ::poll(&over, 1, kStopAgainMs)) {
    (void)client_.StopClient(nullptr);  // the run ends even if this fails
  }
}

void Watch::AwaitEnding() {
  while (!ending_.begun()) {
    pollfd fds[] = {{over_.fd(), POLLIN, 0},
                    {ending_.fd(), POLLIN, 0},
                    {signal_fd_, POLLIN, 0},
                    {watch_output_ ? STDOUT_FILENO : -1, 0, 0}};
    const int ready = ::poll(fds, std::size(fds), PollTimeout(deadline_));
    signalfd_siginfo signal{};
    if (ready < 0) continue;  // EINTR: `fds` is not filled
    if (fds[0].revents != 0) return;
    if (ready == 0) ending_.Begin(kTimedOut, "the time is over");
    if (::read(signal_fd_, &signal, sizeof signal) == sizeof signal)
      ending_.Begin(kSignal + static_cast<int>(signal.ssi_signo));
    if (fds[3].revents != 0) ending_.Begin(kDone);  // the reader has gone
  }
}

}  // namespace zeb::tools
