// Prints the results as text and writes them as JSON.
#include <cstdarg>
#include <cstdio>
#include <limits>

#include "benchmarks/compare/rows.h"

namespace zeb::bench {
namespace {

__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...) {
  char text[1'024];
  va_list values;
  va_start(values, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is initialised one line above
  (void)std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  return text;
}
double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t half = values.size() / 2;
  return values.size() % 2 != 0 ? values[half] : (values[half - 1] + values[half]) / 2;
}

// What is compared with the target: the value, its ratio to the best of the others, or the difference.
struct Verdict {
  double compared = 0;
  const char* text = "not compared";
};
Verdict Judge(const Row& row, const std::vector<PeerResult>& peers) {
  double best = std::numeric_limits<double>::infinity();
  for (size_t i = 1; i < peers.size(); ++i)
    if (peers[i].fault.empty()) best = std::min(best, Median(peers[i].values));
  const bool relative = row.aim == Aim::kRatio || row.aim == Aim::kOverBest;
  if (!peers[0].fault.empty() || (relative && best > std::numeric_limits<double>::max())) return {};
  double compared = Median(peers[0].values);
  if (row.aim == Aim::kRatio) compared /= best;
  if (row.aim == Aim::kOverBest) compared -= best;
  const bool met = row.aim == Aim::kAtLeast ? compared >= row.target : compared <= row.target;
  return {compared, row.aim == Aim::kNone ? "measured" : met ? "met" : "missed"};
}

std::string TargetText(const Row& row) {
  switch (row.aim) {
    case Aim::kRatio:
      return Text("<= %.2f x best", row.target);
    case Aim::kOverBest:
      return Text("<= best + %.0f %s", row.target, row.unit);
    case Aim::kAtMost:
      return Text("<= %.0f %s", row.target, row.unit);
    case Aim::kAtLeast:
      return Text(">= %.0f %s", row.target, row.unit);
    default:
      return "none";
  }
}

// Prints one client's line and returns its JSON.
std::string ReportPeer(const PeerResult& peer, const char* unit) {
  if (!peer.fault.empty()) {
    std::printf("  %-11s not measured: %s\n", peer.name, peer.fault.c_str());
    return Text(R"({"peer": "%s", "fault": "%s"})", peer.name, peer.fault.c_str());
  }
  const double value = Median(peer.values), p99_us = Median(peer.p99s_us), cpu_us = Median(peer.cpus_us);
  const auto [low, high] = std::minmax_element(peer.values.begin(), peer.values.end());
  std::printf("  %-11s %10.2f %-4s rounds %.2f..%.2f", peer.name, value, unit, *low, *high);
  if (p99_us > 0) std::printf("  p99 %.1f us", p99_us);
  if (cpu_us > 0) std::printf("  CPU %.2f us  %.0f a second", cpu_us, Median(peer.rates));
  std::printf("\n");
  return Text(R"({"peer": "%s", "value": %.3f, "min": %.3f, "max": %.3f, "p99_us": %.1f, "cpu_us": %.3f, )"
              R"("per_second": %.1f})",
              peer.name, value, *low, *high, p99_us, cpu_us, Median(peer.rates));
}

}  // namespace

std::string Report(const Row& row, const std::vector<PeerResult>& peers) {
  const Verdict verdict = Judge(row, peers);
  const std::string target = TargetText(row);
  std::printf("%s%s: %s\n", row.name, row.x < 0 ? "" : Text(" %d", row.x).c_str(), row.text);
  if (row.x < 0) std::printf("  target %s: %s %.2f\n", target.c_str(), verdict.text, verdict.compared);
  std::string list;
  for (const PeerResult& peer : peers)
    list += (list.empty() ? "\n    " : ",\n    ") + ReportPeer(peer, row.unit);
  std::fflush(stdout);
  return Text(R"({"row": "%s", "text": "%s", "unit": "%s", "x": %d, "limit": %.3f, "target": "%s", )"
              R"("compared": %.3f, "verdict": "%s", "peers": [)",
              row.name, row.text, row.unit, row.x, row.target, target.c_str(), verdict.compared,
              verdict.text) +
         list + "]}";
}

}  // namespace zeb::bench
