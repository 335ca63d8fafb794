// Holds packets back between two tunnel interfaces. One thread.
#include "benchmarks/compare/delay_line.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>

#include "benchmarks/compare/peer.h"

namespace zeb::bench {
namespace {

constexpr size_t k_max_packet = 65'536;  // bytes
constexpr int64_t k_ns_per_ms = 1'000'000;
constexpr int64_t k_idle_ns = 1'000 * k_ns_per_ms;

struct Direction {
  int from, to;
  struct Packet {
    int64_t due_ns;
    std::string bytes;
  };
  std::deque<Packet> packets;

  void Take(int64_t delay_ns) {
    char bytes[k_max_packet];
    for (ssize_t size = ::read(from, bytes, sizeof bytes); size > 0; size = ::read(from, bytes, sizeof bytes))
      packets.push_back({NowNs() + delay_ns, std::string(bytes, static_cast<size_t>(size))});
  }
  void Deliver() {
    for (; !packets.empty() && packets.front().due_ns <= NowNs(); packets.pop_front()) {
      const std::string& bytes = packets.front().bytes;
      if (::write(to, bytes.data(), bytes.size()) < 0) continue;  // lost, as can happen on any wire
    }
  }
};

}  // namespace

int OpenTunnel(const char* name) {
  const int fd = ::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ifreq request{};
  std::strncpy(request.ifr_name, name, sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (fd >= 0 && ::ioctl(fd, TUNSETIFF, &request) == 0) return fd;
  ::close(fd);
  return -1;
}

void RunDelayLine(int one, int other, const std::atomic<int>& round_trip_ms) {
  ::prctl(PR_SET_TIMERSLACK, 1);
  Direction there{one, other, {}}, back{other, one, {}};
  for (;;) {
    int64_t wait_ns = k_idle_ns;
    for (const Direction* direction : {&there, &back})
      if (!direction->packets.empty())
        wait_ns = std::clamp<int64_t>(direction->packets.front().due_ns - NowNs(), 0, wait_ns);
    const timespec wait{wait_ns / (1'000 * k_ns_per_ms), wait_ns % (1'000 * k_ns_per_ms)};
    pollfd ends[] = {{one, POLLIN, 0}, {other, POLLIN, 0}};
    ::ppoll(ends, 2, &wait, nullptr);
    for (Direction* direction : {&there, &back}) {
      direction->Take(round_trip_ms * k_ns_per_ms / 2);
      direction->Deliver();
    }
  }
}

}  // namespace zeb::bench
