// Runs each kind of measurement in a process of its own, and reads its outcome through a pipe.
#include "benchmarks/compare/work.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "benchmarks/wakeups.h"

namespace zeb::bench {
namespace {

using Kind = Work::Kind;
constexpr unsigned k_limit_s = 60;              // for one measurement
constexpr int64_t k_repeat_ns = 1'000'000'000;  // no operation begins later: some connects take seconds
constexpr double k_ns_per_us = 1'000;

double CpuUs() {
  timespec used{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) / k_ns_per_us;
}

void Require(bool holds, const std::string& fault) {
  if (!holds) throw std::runtime_error(fault);
}

struct Lane {
  std::vector<double> us;
  bool good = true;
};
struct Timed {
  std::vector<double> us;  // the time of each operation, sorted
  double wall_us, cpu_us;
  [[nodiscard]] long count() const { return static_cast<long>(us.size()); }
  [[nodiscard]] double per_second() const { return static_cast<double>(us.size()) / wall_us * 1e6; }
};

// Runs `operation` up to `operations` times on each of `lanes` threads, all at the same time.
Timed Repeat(int lanes, int operations, const std::function<bool(int lane)>& operation) {
  std::vector<Lane> results(static_cast<size_t>(lanes));
  std::vector<std::thread> threads;
  threads.reserve(results.size());
  const double cpu_us = CpuUs();
  const int64_t begin_ns = NowNs();
  for (int lane = 0; lane < lanes; ++lane)
    threads.emplace_back([&, lane] {
      Lane& own = results[static_cast<size_t>(lane)];
      own.us.reserve(static_cast<size_t>(operations));
      for (int i = 0; i < operations && own.good; ++i) {
        const int64_t start_ns = NowNs();
        if (start_ns > begin_ns + k_repeat_ns) break;
        own.good = operation(lane);
        own.us.push_back(static_cast<double>(NowNs() - start_ns) / k_ns_per_us);
      }
    });
  for (std::thread& thread : threads) thread.join();
  Timed timed{{}, static_cast<double>(NowNs() - begin_ns) / k_ns_per_us, CpuUs() - cpu_us};
  for (const Lane& lane : results) {
    Require(lane.good, "an operation failed");
    timed.us.insert(timed.us.end(), lane.us.begin(), lane.us.end());
  }
  std::sort(timed.us.begin(), timed.us.end());
  return timed;
}

/// Runs one measurement, in a process of its own.
class Bench {
 public:
  Bench(const World& world, const Maker& maker, const Work& work)
      : world_(world),
        maker_(maker),
        work_(work),
        target_(world.At(work.round_trip_ms)),
        counts_(world.CountsAt(work.round_trip_ms)) {}

  void Run(Outcome& outcome) {
    switch (work_.kind) {
      case Kind::kPublish:
        return Summarise(Publish(work_.clients, work_.threads), outcome);
      case Kind::kConnect:
        return Summarise(Connect(), outcome);
      case Kind::kFlood:
        return Flood(outcome);
      case Kind::kSpeedUp: {
        const double alone = Publish(1, 1).per_second();
        outcome.value = Publish(1, work_.threads).per_second() / alone;
        return;
      }
      case Kind::kIdle:
        return Idle(outcome);
      case Kind::kMemory:
        return Memory(outcome);
      case Kind::kFileSize:
        outcome.value = static_cast<double>(std::filesystem::file_size(work_.file)) / 1'024;
    }
  }

 private:
  // Waits, because the broker may count later than the client returns. A foreign broker counts nothing.
  void AwaitCount(const std::atomic<long>& count, long wanted, const char* what) const {
    if (world_.foreign()) return;
    for (int look = 0; look < 5'000 && count < wanted; ++look) ::usleep(1'000);
    if (count == wanted) return;
    throw std::runtime_error("the broker counted " + std::to_string(count) + " " + what + ", not " +
                             std::to_string(wanted));
  }

  std::unique_ptr<Peer> Make(int number = 0) {
    target_.client_id = std::string("bench-") + maker_.name + "-" + std::to_string(number);
    return maker_.make(target_);
  }
  std::unique_ptr<Peer> Connected(int number = 0) {
    auto peer = Make(number);
    Require(peer->Connect(), "no connection");
    return peer;
  }

  static void Summarise(const Timed& timed, Outcome& outcome) {
    outcome.value = timed.us[timed.us.size() / 2];
    outcome.p99_us = timed.us[timed.us.size() * 99 / 100];
    outcome.cpu_us = timed.cpu_us / static_cast<double>(timed.us.size());
    outcome.per_second = timed.per_second();
  }

  Timed Publish(int clients, int threads) {
    std::vector<std::unique_ptr<Peer>> peers;
    peers.reserve(static_cast<size_t>(clients));
    for (int i = 0; i < clients; ++i) peers.push_back(Connected(i));
    const std::string payload(work_.payload, 'x');
    const auto publish = [&](int lane) {
      return peers[static_cast<size_t>(lane / threads)]->Publish(payload, work_.qos);
    };
    const int lanes = clients * threads;
    const long before = counts_.publishes[work_.qos], bytes_before = counts_.payload_bytes;
    const long warm = Repeat(lanes, work_.operations / 10 + 1, publish).count();
    Timed timed = Repeat(lanes, work_.operations, publish);
    const long messages = warm + timed.count();
    AwaitCount(counts_.publishes[work_.qos], before + messages, "messages");
    AwaitCount(counts_.payload_bytes, bytes_before + messages * static_cast<long>(work_.payload), "bytes");
    for (const auto& peer : peers) Require(peer->Disconnect(), "no disconnection");
    return timed;
  }

  Timed Connect() {
    const auto peer = Make();
    const auto connect = [&](int) { return peer->Connect() && peer->Disconnect(); };
    const long before = counts_.connects, left_before = counts_.disconnects;
    const long warm = Repeat(1, 1, connect).count();
    Timed timed = Repeat(1, work_.operations, connect);
    AwaitCount(counts_.connects, before + warm + timed.count(), "connections");
    AwaitCount(counts_.disconnects, left_before + warm + timed.count(), "DISCONNECTs");
    return timed;
  }

  void Flood(Outcome& outcome) {
    const auto peer = Connected();
    const std::string topic = FloodTopic(work_.qos, work_.operations, work_.payload);
    peer->Expect(work_.operations, work_.payload);
    const long before = counts_.acknowledgements;
    const double cpu_us = CpuUs();
    Require(peer->Subscribe(topic, work_.qos), "no subscription");
    int64_t start_ns = NowNs();
    if (world_.foreign()) ForkHelper([&] { PublishFlood(topic); });
    int64_t end_ns = peer->AwaitArrivals();
    Require(end_ns != 0, "not all messages arrived");
    AwaitCount(counts_.acknowledgements, before + (work_.qos != 0 ? work_.operations : 0), "PUBACKs");
    if (!world_.foreign()) {
      start_ns = counts_.flood_start_ns;
      if (work_.qos != 0) end_ns = std::max<int64_t>(end_ns, counts_.last_acknowledgement_ns);
    }
    outcome.cpu_us = (CpuUs() - cpu_us) / work_.operations;
    outcome.value = static_cast<double>(end_ns - start_ns) / k_ns_per_us / work_.operations;
    outcome.per_second = 1e6 / outcome.value;
    Require(peer->Disconnect(), "no disconnection");
  }

  // Floods a foreign broker, which needs a publisher for that.
  void PublishFlood(const std::string& topic) const {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(static_cast<uint16_t>(target_.port));
    ::inet_pton(AF_INET, target_.host.c_str(), &at.sin_addr);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0) return;
    std::string bytes("\x10\x0D\x00\x04MQTT\x04\x02\x00\x00\x00\x01p", 15);
    bytes += FloodPackets(topic, work_.qos, 0, work_.operations, work_.payload);
    (void)::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    while (::recv(fd, bytes.data(), bytes.size(), 0) > 0) continue;  // until the measurement's process ends
  }

  void Idle(Outcome& outcome) {
    const auto peer = Connected();
    ::sleep(1);  // until the start's own wake-ups are over
    const auto before = Switches();
    ::sleep(static_cast<unsigned>(work_.operations));
    long wakeups = 0;
    for (const auto& [thread, count] : Switches()) {
      const auto earlier = before.find(thread);
      wakeups += count - (earlier != before.end() ? earlier->second : 0);
    }
    outcome.value = static_cast<double>(wakeups) * 60 / work_.operations;
    Require(peer->Publish("x", 1), "the session did not last");
  }

  static double PrivateKb() {
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string line; std::getline(rollup, line);)
      if (line.compare(0, 14, "Private_Dirty:") == 0) return std::strtod(line.c_str() + 14, nullptr);
    throw std::runtime_error("no /proc/self/smaps_rollup");
  }

  void Memory(Outcome& outcome) {
    std::vector<std::unique_ptr<Peer>> peers;
    peers.reserve(static_cast<size_t>(work_.operations) + 1);
    peers.push_back(Connected());
    const double before_kb = PrivateKb();
    for (int i = 1; i <= work_.operations; ++i) peers.push_back(Connected(i));
    ::usleep(200'000);  // until every thread has come to rest
    outcome.value = (PrivateKb() - before_kb) / work_.operations;
    for (const auto& peer : peers) Require(peer->Publish("x", 1), "a client is not connected");
  }

  const World& world_;
  const Maker& maker_;
  const Work& work_;
  Target target_;
  const Counts& counts_;
};

}  // namespace

Measurement::Measurement(World& world, const Maker& maker, const Work& work) {
  world.SetRoundTrip(work.round_trip_ms);
  world.PlaceBroker(work.client == Cores::kAllButLast ? Cores::kLast : work.client);
  if (::pipe2(pipe_, O_CLOEXEC) != 0) return;
  child_ = ForkHelper([&] {
    ::alarm(k_limit_s + (work.kind == Kind::kIdle ? static_cast<unsigned>(work.operations) : 0));
    UseCores(0, work.client);
    Outcome outcome;
    std::string fault;
    try {
      Bench(world, maker, work).Run(outcome);
    } catch (const std::exception& error) {
      fault = error.what();
    }
    std::snprintf(outcome.fault, sizeof outcome.fault, "%s", fault.c_str());
    if (::write(pipe_[1], &outcome, sizeof outcome) < 0) ::_exit(1);
  });
  ::close(pipe_[1]);
}

Outcome Measurement::Collect() {
  Outcome outcome;
  if (::read(pipe_[0], &outcome, sizeof outcome) != sizeof outcome) outcome = Outcome();
  ::close(pipe_[0]);
  ::waitpid(child_, nullptr, 0);
  return outcome;
}

}  // namespace zeb::bench
