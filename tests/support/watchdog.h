// Ends a test that hangs, and tells where.
#pragma once

#include <execinfo.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <iostream>

namespace zeb::test {

/// After 30 s without a call of Alive every thread's stack goes to stderr, and the process ends.
struct Watchdog {
  explicit Watchdog(std::string name) : guarded(std::move(name)) {}
  ~Watchdog() { ended.set_value(); }
  void Alive() { ++signs_of_life; }

  void Run(const std::future<void>& over) {
    for (int before = -1; before != signs_of_life;) {
      before = signs_of_life;
      if (over.wait_for(std::chrono::seconds(30)) == std::future_status::ready) return;
    }
    std::cerr << guarded << ": nothing has happened for 30 s" << std::endl;
    constexpr int k_unblockable = 33;  // the C library's own; it tells the kernel only what others are for
    void* action[16] = {};
    ::signal(SIGUSR2, SIG_IGN);
    ::syscall(SYS_rt_sigaction, SIGUSR2, nullptr, action, 8);
    action[0] = reinterpret_cast<void*>(+[](int) {
      void* frames[64];
      ::backtrace_symbols_fd(frames, ::backtrace(frames, 64), STDERR_FILENO);
    });
    ::syscall(SYS_rt_sigaction, k_unblockable, action, nullptr, 8);
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::cerr << "Thread " << task.path().filename() << std::endl;
      ::syscall(SYS_tgkill, ::getpid(), std::stoi(task.path().filename()), k_unblockable);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));  // so that they do not mix
    }
    std::abort();
  }

  const std::string guarded;
  std::atomic<int> signs_of_life{0};
  std::promise<void> ended;
  std::future<void> run = std::async(std::launch::async, &Watchdog::Run, this, ended.get_future());
};

}  // namespace zeb::test
