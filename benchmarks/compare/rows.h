// What is measured, and the targets of this library.
#pragma once

#include "benchmarks/compare/work.h"

namespace zeb::bench {

enum class Aim {
  kRatio,     // at most `target` times the best of the others
  kOverBest,  // at most `target` more than the best of the others
  kAtMost,
  kAtLeast,
  kNone,
};

struct Row {
  const char* name;
  const char* text;
  const char* unit;
  Work work;
  Aim aim;
  double target;
  bool cpu = false;    // the row shows Outcome::cpu_us
  bool alone = false;  // only this library does this work
  int x = -1;          // 0 or more: a point of the curve `name`
};
/// The rows of the table, then the points of the curves.
const std::vector<Row>& Rows();

/// One client's results, one value per round.
struct PeerResult {
  const char* name;
  std::vector<double> values, p99s_us, cpus_us, rates;
  std::string fault;  // empty if there was none
};
/// Prints the results and returns them as JSON.
std::string Report(const Row& row, const std::vector<PeerResult>& peers);

}  // namespace zeb::bench
