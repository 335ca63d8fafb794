// Whatever the system or the allocator refuses, at whichever call: every request returns, nothing is left
// behind, and the next start of the same client works. The linker hands this program's calls to __wrap_*.
#include <dlfcn.h>
#include <ifaddrs.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <syslog.h>

#include <csignal>
#include <cstring>

#include "tests/network/uplinks.h"
#include "tests/session/session.h"

namespace {

struct Fault {
  const char* call;
  int error;
  int nth;       // counted from 1
  bool lasting;  // and all later calls
};
std::atomic<const Fault*> fault{nullptr};
std::atomic<int> calls{0};
std::atomic<bool> begun{false};
// The test's own, and all that began after it: the broker's is none of them.
thread_local bool client_thread = begun;

bool Fails(const char* call) {
  const Fault* const now = fault;
  if (!client_thread || now == nullptr || std::strcmp(now->call, call) != 0) return false;
  const int at = ++calls;
  errno = now->error;
  return now->lasting ? at >= now->nth : at == now->nth;
}

}  // namespace

// The library's other forms end in these.
__attribute__((noinline)) void* operator new(size_t size) {
  if (Fails("new")) throw std::bad_alloc();
  return std::malloc(size);
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept { std::free(memory); }

#define ZEB_WRAP_TO(failed, name, parameters, arguments)             \
  decltype(::name) __real_##name;                                    \
  auto __wrap_##name parameters->decltype(__real_##name arguments) { \
    return Fails(#name) ? failed : __real_##name arguments;          \
  }
#define ZEB_WRAP(...) ZEB_WRAP_TO(-1, __VA_ARGS__)

extern "C" {
ZEB_WRAP(eventfd, (unsigned a, int b), (a, b))
ZEB_WRAP(timerfd_create, (int a, int b), (a, b))
ZEB_WRAP(timerfd_settime, (int a, int b, const itimerspec* c, itimerspec* d), (a, b, c, d))
ZEB_WRAP(epoll_create1, (int a), (a))
ZEB_WRAP(epoll_ctl, (int a, int b, int c, epoll_event* d), (a, b, c, d))
ZEB_WRAP(epoll_wait, (int a, epoll_event* b, int c, int d), (a, b, c, d))
ZEB_WRAP(poll, (pollfd * a, nfds_t b, int c), (a, b, c))
ZEB_WRAP(send, (int a, const void* b, size_t c, int d), (a, b, c, d))
ZEB_WRAP(recv, (int a, void* b, size_t c, int d), (a, b, c, d))
ZEB_WRAP(socket, (int a, int b, int c), (a, b, c))
ZEB_WRAP(setsockopt, (int a, int b, int c, const void* d, socklen_t e), (a, b, c, d, e))
ZEB_WRAP(getifaddrs, (ifaddrs * *a), (a))
ZEB_WRAP_TO(MAP_FAILED, mmap, (void* a, size_t b, int c, int d, int e, off_t f), (a, b, c, d, e, f))
int pthread_create(pthread_t* a, const pthread_attr_t* b, void* (*c)(void*), void* d) noexcept {  // for all
  static const auto real = reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  return Fails("pthread_create") ? errno : real(a, b, c, d);
}
}

namespace zeb::test {
namespace {

struct Case {
  const char* call;
  int error;
  std::vector<std::string> lines = {};  // one of them tells; none: nothing is promised
  friend void PrintTo(const Case& shown, std::ostream* out) { *out << shown.call; }
};

class Faults : public testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    if (std::getenv(k_isolated) != nullptr) Ip("link set lo up");
    session_.option.keep_alive = 60;
    Recover();  // what the process keeps comes into being
    ASSERT_TRUE(
        Eventually([&] { return session_.broker.Open() == 0 && Entries("/proc/self/task") == threads_; }));
    for (auto& other : others_) other = util::ScopedFd(::dup(STDIN_FILENO));
    descriptors_ = Entries("/proc/self/fd");
    begun = client_thread = true;
  }
  void TearDown() override { begun = client_thread = false; }

  void Step(const std::function<Result()>& call) {
    const double took = Seconds([&] {
      try {
        failures_ += call() != kSuccess;
      } catch (const std::bad_alloc&) {
        ++failures_;
      }
    });
    EXPECT_LT(took, 3 * session_.option.timeout + 3);
  }

  /// All that a client does; the number of calls that failed.
  int RunSession() {
    failures_ = 0;
    Step([this] { return session_.Start(); });
    EXPECT_TRUE(failures_ == 0 || session_.client.GetStatusInfo().status != 2);
    Step([this] { return session_.client.Subscribe(filters_, nullptr); });
    for (qos_ = 0; qos_ <= 2; ++qos_) Step([this] { return session_.Publish(qos_); });
    Step([this] { return session_.client.Ping(true); });
    Step([this] { return session_.Stop(); });
    return failures_;
  }

  void ExpectNothingLeft() {
    (void)session_.Stop();  // a failed start may leave its socket to it
    EXPECT_TRUE(Eventually([&] { return Entries("/proc/self/task") == threads_; }));
    EXPECT_TRUE(Eventually([&] { return Entries("/proc/self/fd") == descriptors_; }));
    if (std::getenv(k_isolated) == nullptr) return;
    const std::filesystem::path power("/sys/power");
    EXPECT_EQ(file_size(power / "wake_lock") + 1,
              file_size(power / "wake_unlock"));  // one asks for the right
  }

  void Recover() {
    const size_t ends = session_.ends.Await(0).size();
    ASSERT_EQ(session_.Start(), kSuccess);
    EXPECT_EQ(session_.Publish(1), kSuccess);
    EXPECT_TRUE(session_.Healthy());
    EXPECT_EQ(session_.Stop(), kSuccess);
    EXPECT_EQ(session_.ends.Await(0).size(), ends);
  }

  std::atomic<int64_t> suspend_s_{0};  // before each answer
  const Handler answer_ = [this](Connection& connection, const Packet& packet) {
    suspended_s += suspend_s_;
    ScriptedBroker::Answer(connection, packet);
    if (packet.type() == MsgType::SUBSCRIBE) connection.Send(Bytes("32070001610007003134070001610008 0032"));
  };
  Session session_{
      k_mqtt5, {{MsgType::SUBSCRIBE, answer_}, {MsgType::PUBLISH, answer_}, {MsgType::PUBREL, answer_}}, 2};
  MqttWrapper::SubscribeOption filters_{{{"a", uint8_t{2}}}, 0, {}};
  // More than the broker has connections: its poll obeys the limit, too.
  std::vector<util::ScopedFd> others_{100};
  size_t threads_ = Entries("/proc/self/task");
  size_t descriptors_ = 0;
  uint8_t qos_ = 0;
  int failures_ = 0;
};

TEST_P(Faults, AtEveryCallAreToldAndSurvived) {
  const auto& [call, error, lines] = GetParam();
#ifdef __SANITIZE_ADDRESS__
  if (call == std::string("setrlimit")) GTEST_SKIP() << "the sanitizer itself needs descriptors";
#endif
  rlimit usual{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
  for (int nth = 1, round = 0; round < 2; ++nth) {
    ASSERT_LT(nth, 1'000);
    const Fault here{call, error, nth, round == 1 && error != EINTR && error != ENOMEM};
    SCOPED_TRACE(call + std::string(here.lasting ? " from " : " ") + std::to_string(nth));
    session_.option.host = round == 0 ? "localhost" : "127.0.0.1";
    std::optional<LogCapture> log;
    if (!lines.empty()) log.emplace();
    const bool limits = std::strcmp(call, "setrlimit") == 0;
    const rlimit lowered{limits ? descriptors_ + static_cast<size_t>(nth) : usual.rlim_cur, usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    calls = 0;
    fault = &here;
    RunSession();
    fault = nullptr;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
    ExpectNothingLeft();
    const bool told =
        std::any_of(lines.begin(), lines.end(), [&](auto& line) { return log->Contains(line); });
    const bool happened = limits ? told : calls >= nth;
    EXPECT_TRUE(told || !happened || !log);
    EXPECT_TRUE((happened && error != EINTR) || failures_ == 0) << failures_;
    Recover();
    if (HasFailure()) return;
    if (!happened) ++round, nth = 0;
  }
}
const Case k_cases[] = {
    {"eventfd", EMFILE, {"eventfd errno [24]", "no resources", "not watched: Too", "a stop waits for the"}},
    {"timerfd_create", EMFILE, {"timerfd_create errno [24]"}},
    {"timerfd_settime", EINVAL, {"timerfd_settime errno [22]", "Cannot reset timerfd"}},
    {"epoll_create1", EMFILE, {"epoll_create errno [24]"}},
    {"epoll_ctl", ENOSPC, {"EPOLL_CTL_ADD fd ["}},
    {"epoll_wait", EINVAL, {"select errno 22"}},
    {"epoll_wait", EINTR},
    {"poll", EINTR},
    {"send", EINTR},
    {"recv", EINTR},
    {"socket", EMFILE, {": Too many open files"}},
    {"setsockopt", ENOBUFS, {"not set: No buffer space available"}},
    {"pthread_create", EAGAIN, {"no thread: Resource temporarily unavailable"}},
    {"getifaddrs", EMFILE, {"interfaces not listed: Too many open files"}},
    {"mmap", ENOMEM, {"Cannot alloc receive buf"}},
    {"new", ENOMEM},
    {"setrlimit",
     0,
     {"errno [24]", "Too many open", "no resources", "a stop waits", "Cannot get CONNACK", "Cannot Resolv"}}};
INSTANTIATE_TEST_SUITE_P(, Faults, testing::ValuesIn(k_cases),
                         [](const auto& test) { return test.param.call + std::to_string(test.param.error); });

TEST_F(Faults, SignalsInterruptNothing) {
  struct sigaction without_restart {};
  without_restart.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGALRM, &without_restart, nullptr), 0);
  session_.option.timeout = 20;
  for (const suseconds_t period_us : {1'000, 0}) {
    const itimerval storm{{0, period_us}, {0, period_us}};
    ASSERT_EQ(::setitimer(ITIMER_REAL, &storm, nullptr), 0);
    EXPECT_EQ(RunSession(), 0);
    EXPECT_EQ(session_.Start(), kSuccess);
    for (int i = 0; i < 30; ++i) EXPECT_EQ(session_.Publish(2, std::string(100'000, 'x')), kSuccess);
    EXPECT_EQ(session_.Stop(), kSuccess);
  }
  EXPECT_EQ(session_.ends.Await(0).size(), 0U);
}

TEST_F(Faults, ClocksMayJump) {
  for (const int64_t seconds : {86'400, -86'400, 0}) {
    wall_clock_s = seconds;
    EXPECT_EQ(RunSession(), 0);
  }
  suspend_s_ = 3'600;
  EXPECT_EQ(RunSession(), 0);
  EXPECT_EQ(session_.ends.Await(0).size(), 0U);
}

TEST_F(Faults, TheSystemsLogMayBeAbsentOrStalled) {
  if (std::getenv(k_isolated) == nullptr) GTEST_SKIP() << "no right to make a mount namespace";
  Shell("mount -t tmpfs none /dev");
  pass_log_on = true;
  EXPECT_EQ(RunSession(), 0);
  ::closelog();
  util::ScopedFd log(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address{AF_UNIX, "/dev/log"};
  ASSERT_EQ(::bind(log.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  session_.option.timeout = 20;
  session_.option.keep_alive = 1;
  auto session = std::async(std::launch::async, [&] {
    EXPECT_EQ(RunSession(), 0);
    EXPECT_EQ(session_.Start(), kSuccess);
    EXPECT_EQ(session_.broker.Await(MsgType::PINGREQ, 5).hex(), "c000");
    EXPECT_TRUE(session_.Healthy());
    EXPECT_EQ(session_.Stop(), kSuccess);
    pass_log_on = false;
  });
  char line[4'096];
  EXPECT_EQ(session.wait_for(std::chrono::seconds(2)), std::future_status::timeout);
  while (session.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)  // slow from now on
    (void)!::recv(log.get(), line, sizeof line, MSG_DONTWAIT);
  EXPECT_EQ(session_.ends.Await(0), std::vector<int>());
}

}  // namespace
}  // namespace zeb::test
