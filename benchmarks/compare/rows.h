// What is measured, and what this library is to reach.
#pragma once

#include "benchmarks/compare/work.h"

namespace zeb::bench {

enum class Aim {
  kRatio,     // at most so many times the best of the others
  kOverBest,  // at most so much more than the best of the others
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
  bool cpu = false;    // the row is about Outcome::cpu_us
  bool alone = false;  // the others do not do this work
  int x = -1;          // from 0 on: a point of the curve `name`
};
/// The table; behind it the curves, point by point.
const std::vector<Row>& Rows();

/// What became of one client in each round.
struct PeerResult {
  const char* name;
  std::vector<double> values, p99s_us, cpus_us, rates;
  std::string fault;  // empty: all went well
};
/// Prints it, and returns it as JSON.
std::string Report(const Row& row, const std::vector<PeerResult>& peers);

}  // namespace zeb::bench
