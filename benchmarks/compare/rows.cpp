// The rows of the table with their targets, and the points of the curves. Any thread.
#include "benchmarks/compare/rows.h"

namespace zeb::bench {
namespace {

Work Of(Work::Kind kind, int operations, int qos = 1, int round_trip_ms = 0, Cores client = Cores::kAll) {
  Work work;
  work.kind = kind;
  work.operations = operations;
  work.qos = qos;
  work.round_trip_ms = round_trip_ms;
  work.client = client;
  return work;
}
Work Threads(Work work, int threads) {
  work.threads = threads;
  return work;
}

// Adds the same measurement with one quantity growing.
template <typename Number>
void AddCurve(std::vector<Row>& rows, const char* name, const char* text, Work work, Number Work::*grows,
              std::initializer_list<int> points) {
  for (const int x : points) {
    work.*grows = static_cast<Number>(x);
    rows.push_back({name, text, "us", work, Aim::kNone, 0, false, false, x});
  }
}

std::vector<Row> Table() {
  using Kind = Work::Kind;
  constexpr Cores k_one = Cores::kFirst, k_apart = Cores::kAllButLast;
  return {
      {"qos1", "QoS 1 publish, the broker on a core of its own", "us",
       Of(Kind::kPublish, 3'000, 1, 0, k_apart), Aim::kRatio, 1.0},
      {"qos1_one_core", "QoS 1 publish, client and broker on one core", "us",
       Of(Kind::kPublish, 3'000, 1, 0, k_one), Aim::kRatio, 0.85},
      {"qos1_20", "QoS 1 publish, round trip 20 ms", "us", Of(Kind::kPublish, 25, 1, 20), Aim::kRatio, 1.02},
      {"qos1_60", "QoS 1 publish, round trip 60 ms", "us", Of(Kind::kPublish, 8, 1, 60), Aim::kRatio, 1.02},
      {"qos2", "QoS 2 publish, the broker on a core of its own", "us",
       Of(Kind::kPublish, 2'000, 2, 0, k_apart), Aim::kRatio, 1.0},
      {"qos2_20", "QoS 2 publish, round trip 20 ms", "us", Of(Kind::kPublish, 15, 2, 20), Aim::kRatio, 1.02},
      {"qos0", "QoS 0 publish, until the broker's TCP has it", "us", Of(Kind::kPublish, 3'000, 0, 0, k_apart),
       Aim::kAtMost, 250, false, true},
      {"qos0_20", "QoS 0 publish, round trip 20 ms", "us", Of(Kind::kPublish, 25, 0, 20), Aim::kAtMost,
       22'000, false, true},
      {"flood0", "inbound QoS 0 flood, a message", "us", Of(Kind::kFlood, 30'000, 0, 0, k_apart), Aim::kRatio,
       0.25},
      {"flood1", "inbound QoS 1 flood, answered, a message", "us", Of(Kind::kFlood, 10'000, 1, 0, k_apart),
       Aim::kRatio, 0.6},
      {"cpu", "CPU time of the client, a QoS 1 publish", "us", Of(Kind::kPublish, 3'000, 1, 0, k_apart),
       Aim::kRatio, 0.8, true},
      {"connect", "connect and disconnect", "us", Of(Kind::kConnect, 150, 1, 0, k_apart), Aim::kRatio, 2.0},
      {"connect_20", "connect and disconnect, round trip 20 ms", "us", Of(Kind::kConnect, 8, 1, 20),
       Aim::kOverBest, 20'000},
      {"threads", "8 threads' rate over one thread's, QoS 1, round trip 20 ms", "x",
       Threads(Of(Kind::kSpeedUp, 20, 1, 20), 8), Aim::kAtLeast, 7, false, true},
      {"memory", "private memory of a further idle client", "kB", Of(Kind::kMemory, 16), Aim::kAtMost, 32},
      {"idle", "wake-ups of an idle client, a minute", "/min", Of(Kind::kIdle, 60), Aim::kAtMost, 8},
      {"size", "stripped shared library with its platform", "kB", Of(Kind::kFileSize, 1), Aim::kAtMost, 187,
       false, true},
  };
}

}  // namespace

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = [] {
    constexpr Cores k_apart = Cores::kAllButLast;
    const Work publish = Of(Work::Kind::kPublish, 500, 1, 0, k_apart);
    std::vector<Row> all = Table();
    AddCurve(all, "payload", "QoS 1 publish, by bytes of payload", publish, &Work::payload,
             {0, 100, 1'000, 10'000, 30'000, 100'000});
    AddCurve(all, "clients", "QoS 1 publish, by clients in a process", publish, &Work::clients,
             {1, 2, 4, 8, 16, 32, 64});
    AddCurve(all, "threads", "QoS 1 publish, by threads on one client", publish, &Work::threads,
             {1, 2, 4, 8});
    AddCurve(all, "queue", "a message of an inbound QoS 1 burst, by its length",
             Of(Work::Kind::kFlood, 0, 1, 0, k_apart), &Work::operations, {10, 100, 1'000, 10'000});
    return all;
  }();
  return rows;
}

}  // namespace zeb::bench
