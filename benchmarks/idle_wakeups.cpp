// Counts how often an idle client wakes up: connects, does nothing, and reads from /proc how often its
// threads went back to sleep. Prints the count and what keep-alive needs, and fails if the count is higher.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "benchmarks/wakeups.h"
#include "mqtt/mqtt_wrapper.h"

namespace {

constexpr int kKeepAlive = 60;  // seconds; the default
constexpr int kTimeout = 10;

}  // namespace

int main(int argc, char** argv) {
  const int port = argc > 1 ? std::atoi(argv[1]) : 0;
  const int seconds = argc > 2 ? std::atoi(argv[2]) : kKeepAlive;
  if (port <= 0 || seconds <= 0) {
    std::fprintf(stderr, "usage: %s PORT [SECONDS]   (of a broker on 127.0.0.1)\n", argv[0]);
    return 2;
  }
  zeb::mqtt::MqttWrapper client;
  zeb::mqtt::MqttWrapper::ConnectOption option;
  option.host = "127.0.0.1";
  option.port = port;
  option.client_id = "idle";
  option.keep_alive = kKeepAlive;
  option.timeout = kTimeout;
  if (client.StartClient(option, nullptr) != zeb::kSuccess) {
    std::fprintf(stderr, "no broker at port %d\n", port);
    return 2;
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));  // until the start's own wake-ups are over
  const std::map<std::string, long> before = zeb::bench::Switches();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  long wakeups = 0;
  for (const auto& [thread, count] : zeb::bench::Switches()) {
    const auto earlier = before.find(thread);
    const long own = count - (earlier != before.end() ? earlier->second : 0);
    std::printf("thread %s: %ld wake-ups\n", thread.c_str(), own);
    wakeups += own;
  }
  const bool connected = client.GetStatusInfo().status == 2;
  // The receive thread wakes once per time-out, and twice per keep-alive: for the ping and for its answer.
  const int pings = (seconds + 1) / kKeepAlive;
  const int needed = seconds / kTimeout + 2 * pings;
  std::printf("idle for %d s, keep_alive %d, timeout %d: %ld wake-ups, %d are needed%s\n", seconds,
              kKeepAlive, kTimeout, wakeups, needed, connected ? "" : "; the session did not last");
  return connected && wakeups <= needed ? 0 : 1;
}
