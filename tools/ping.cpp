// The ping command: measures round trips of PINGREQ and PINGRESP. Main thread only.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tools/commands.h"
#include "tools/output.h"

namespace zeb::tools {
namespace {

/// The results so far.
class Tally {
 public:
  void Sent() { ++sent_; }
  void Received(double ms) {
    ++received_;
    least_ = received_ == 1 ? ms : std::min(least_, ms);
    most_ = std::max(most_, ms);
    sum_ += ms;
    sum_of_squares_ += ms * ms;
  }
  [[nodiscard]] int sent() const { return sent_; }
  [[nodiscard]] bool all_received() const { return received_ == sent_; }

  [[nodiscard]] std::string Summary(const std::string& name, double seconds) const {
    char text[256] = {};
    const double loss = sent_ == 0 ? 0 : 100.0 * (sent_ - received_) / sent_;
    std::snprintf(text, sizeof text, "%d pings transmitted, %d received, %.0f%% loss, time %.0f ms\n", sent_,
                  received_, loss, 1'000 * seconds);
    std::string summary = "\n--- " + name + " ping statistics ---\n" + text;
    if (received_ == 0) return summary;
    const double mean = sum_ / received_;
    const double deviation = std::sqrt(std::max(0.0, sum_of_squares_ / received_ - mean * mean));
    std::snprintf(text, sizeof text, "rtt min/avg/max/mdev = %.3f/%.3f/%.3f/%.3f ms\n", least_, mean, most_,
                  deviation);
    return summary + text;
  }

 private:
  int sent_ = 0;
  int received_ = 0;
  double least_ = 0;
  double most_ = 0;
  double sum_ = 0;
  double sum_of_squares_ = 0;
};

void PingOnce(Connection& connection, Ending& ending, Tally& tally) {
  const auto begin = Clock::now();
  const Result result = connection.client().Ping(true);
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  if (result != kSuccess) {
    ending.Check();  // a ping that the user interrupted does not count
    tally.Sent();
    if (connection.LostBehind()) connection.Recover();
    (void)WriteOutput("no answer from " + connection.Name() + ": seq=" + std::to_string(tally.sent()) + "\n",
                      ending);
    return;
  }
  tally.Sent();
  tally.Received(ms);
  char text[64] = {};
  std::snprintf(text, sizeof text, ": seq=%d time=%.3f ms\n", tally.sent(), ms);
  (void)WriteOutput("answer from " + connection.Name() + text, ending);
}

}  // namespace

int Ping(const Options& options) {
  Ending ending;
  Connection connection(options, ending);
  const Watch watch(connection.client(), ending, true, std::nullopt);
  connection.Open();
  const auto interval =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.interval_s));
  const auto begin = Clock::now();
  Tally tally;
  const auto summarise = [&] {
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    Ending unending;  // the summary is written even though the run ends
    (void)WriteOutput(tally.Summary(connection.Name(), seconds), unending);
  };
  try {
    for (auto next = begin;; next += interval) {
      PingOnce(connection, ending, tally);
      ending.Check();  // throws if the line could not be written
      if (tally.sent() == options.count) break;
      next = std::max(next, Clock::now() - interval);  // no burst after a long wait
      if (connection.Await(-1, next + interval) == Connection::Event::kLost) connection.Recover();
    }
  } catch (const Failure&) {
    summarise();
    throw;
  }
  summarise();
  connection.Close();
  return tally.all_received() ? kDone : kFailed;
}

}  // namespace zeb::tools
