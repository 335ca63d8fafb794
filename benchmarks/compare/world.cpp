// Builds the namespaces, brokers and delay line of the measurements. One thread.
#include "benchmarks/compare/world.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <new>

#include "benchmarks/compare/delay_line.h"

namespace zeb::bench {
namespace {

constexpr char k_near[] = "127.0.0.1";
constexpr char k_far[] = "10.99.0.1";
constexpr char k_far_client[] = "10.99.0.2";

bool Shell(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

// Without root, tries it in a new user namespace.
bool Unshare(int spaces) {
  if (::unshare(spaces) == 0) return true;
  const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(::getegid()) + " 1";
  if (::unshare(spaces | CLONE_NEWUSER) != 0) return false;
  std::ofstream("/proc/self/setgroups") << "deny";
  return (std::ofstream("/proc/self/uid_map") << user << std::flush).good() &&
         (std::ofstream("/proc/self/gid_map") << group << std::flush).good();
}

}  // namespace

pid_t ForkHelper(const std::function<void()>& body) {
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child != 0) return child;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() == parent) body();
  ::_exit(0);
}

void UseCores(pid_t pid, Cores cores) {
  const long last = ::sysconf(_SC_NPROCESSORS_ONLN) - 1;
  cpu_set_t set;
  CPU_ZERO(&set);
  const long begin = cores == Cores::kLast ? last : 0;
  long end = last;
  if (cores == Cores::kFirst) end = 0;
  if (cores == Cores::kAllButLast) end = std::max(last - 1, 0L);
  for (long core = begin; core <= end; ++core) CPU_SET(static_cast<size_t>(core), &set);
  ::sched_setaffinity(pid, sizeof set, &set);
}

World::World(bool tls, int port) : foreign_(port != 0), near_port_(port) {
  void* const memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  shared_ = new (memory) Shared;
  HideKernelLog();
  if (foreign_) {
    without_delay = "the broker is not the benchmark's own";
    return;
  }
  SSL_CTX* context = nullptr;
  if (tls) {
    files_ = std::make_unique<test::TempFiles>();
    files_->MakeIdentity("ca", "ca");
    files_->MakeIdentity("broker", "ca", std::string("IP:") + k_near + ",IP:" + k_far);
    ca_file_ = files_->Path("ca.pem");
    context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_use_certificate_file(context, files_->Path("broker.pem").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(context, files_->Path("broker.key.pem").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  }
  BuildDelayLine(context);
  near_port_ = StartBroker(k_near, context, shared_->near);
  near_broker_ = last_broker_;
  SSL_CTX_free(context);  // both brokers have their own copies
}

// The library logs each start in the kernel log, through a shell, if it may write there. The application of a
// device usually may not.
void World::HideKernelLog() {
  if (::access("/dev/kmsg", W_OK) != 0) return;
  if (!Unshare(CLONE_NEWNS) || !Shell("mount --make-rprivate / && mount --bind /proc/version /dev/kmsg"))
    notes += "/dev/kmsg could not be hidden: connects include a shell\n";
}

// Gives the far broker and this process a network namespace each, with the delay line between them.
void World::BuildDelayLine(SSL_CTX* tls) {
  if (!Unshare(CLONE_NEWNET)) {
    without_delay = "no right to make network namespaces";
    return;
  }
  const int far = OpenTunnel("far");
  if (far >= 0 && Shell(std::string("ip addr add ") + k_far + "/30 dev far && ip link set far up"))
    far_port_ = StartBroker(k_far, tls, shared_->far);
  if (!Unshare(CLONE_NEWNET) || !Shell("ip link set lo up")) std::abort();
  const int near = OpenTunnel("near");
  if (far_port_ == 0 || near < 0 ||
      !Shell(std::string("ip addr add ") + k_far_client + "/30 dev near && ip link set near up")) {
    without_delay = "no use of /dev/net/tun, or no command ip";
    return;
  }
  ForkHelper([&] { RunDelayLine(near, far, shared_->round_trip_ms); });
  ::close(near);
  ::close(far);
}

int World::StartBroker(const char* address, SSL_CTX* tls, Counts& counts) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  ::inet_pton(AF_INET, address, &at.sin_addr);
  socklen_t size = sizeof at;
  auto* const plain = reinterpret_cast<sockaddr*>(&at);
  if (::bind(listener, plain, size) != 0 || ::listen(listener, 128) != 0 ||
      ::getsockname(listener, plain, &size) != 0)
    std::abort();
  last_broker_ = ForkHelper([&] { RunBroker(listener, tls, counts); });
  ::close(listener);
  return ntohs(at.sin_port);
}

Target World::At(int round_trip_ms) const {
  return {round_trip_ms == 0 ? k_near : k_far, round_trip_ms == 0 ? near_port_ : far_port_, ca_file_, ""};
}

const Counts& World::CountsAt(int round_trip_ms) const {
  return round_trip_ms == 0 ? shared_->near : shared_->far;
}

void World::PlaceBroker(Cores cores) const {
  if (near_broker_ != 0) UseCores(near_broker_, cores);
}

}  // namespace zeb::bench
