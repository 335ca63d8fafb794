// Measures this library and other clients that a user might choose: rows of a table, each with a target, and
// curves of growth. The clients take turns in every round, so that other work on the machine affects all.
#include <sys/utsname.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>

#include "benchmarks/compare/rows.h"

namespace zeb::bench {
namespace {

constexpr char k_usage[] =
    "usage: %s [OPTION...]\n"
    "  --rows A,B      these rows alone (default all); none\n"
    "  --curve A,B     these curves too: payload, clients, threads, queue; all\n"
    "  --peers A,B     these clients alone, beside zeb (default all)\n"
    "  --rounds N      how often each is measured (5)\n"
    "  --tls           the same over TLS\n"
    "  --log full      with every log line written; default: warnings alone, as a product would\n"
    "  --port PORT     against a broker that runs on 127.0.0.1, plain, instead of the fast one\n"
    "  --idle SECONDS  that the row idle takes (60)\n"
    "  --library FILE  the stripped shared library, for the row size\n"
    "  --json FILE     the results, for benchmarks/plot\n";

struct Options {
  std::map<std::string, std::string> texts{
      {"rows", "all"},   {"curve", "none"}, {"peers", "all"}, {"rounds", "5"}, {"tls", ""},
      {"log", "masked"}, {"port", "0"},     {"idle", "60"},   {"library", ""}, {"json", ""}};

  bool Parse(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
      const std::string word = argv[i];
      const auto text = texts.find(word.compare(0, 2, "--") == 0 ? word.substr(2) : "");
      if (text == texts.end() || (word != "--tls" && ++i == argc)) return false;
      text->second = argv[i];
    }
    return Number("rounds") > 0 && Number("idle") > 0 && !(Has("tls") && Number("port") != 0);
  }
  [[nodiscard]] int Number(const char* name) const { return std::atoi(texts.at(name).c_str()); }
  [[nodiscard]] bool Has(const char* name) const { return !texts.at(name).empty(); }
  [[nodiscard]] bool Lists(const char* name, const std::string& word) const {
    const std::string& list = texts.at(name);
    return list == "all" || ("," + list + ",").find("," + word + ",") != std::string::npos;
  }
};

std::string Conditions(const Options& options) {
  std::ifstream cpus("/proc/cpuinfo");
  std::string model = "unknown processor", line;
  while (std::getline(cpus, line))
    if (line.compare(0, 10, "model name") == 0) model = line.substr(line.find(':') + 2);
  utsname system{};
  ::uname(&system);
  char date[32];
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  std::strftime(date, sizeof date, "%Y-%m-%d", ::gmtime_r(&now, &fields));
  return std::string(date) + ", " + std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " x " + model +
         ", Linux " + system.release + (options.Has("tls") ? ", TLS" : ", plain TCP") + ", log " +
         options.texts.at("log") + (options.Number("port") != 0 ? ", another broker" : ", fast broker") +
         ", rounds: " + options.texts.at("rounds");
}

class Programme {
 public:
  explicit Programme(const Options& options)
      : options_(options), world_(options.Has("tls"), options.Number("port")) {}

  int Run() {
    const std::string conditions = Conditions(options_);
    std::printf("%s\n%s", conditions.c_str(), world_.notes.c_str());
    for (const Maker& maker : Makers()) {
      if (maker.make == nullptr)
        std::printf("%s is left out: its library was not there at build time\n", maker.name);
      else if (makers_.empty() || options_.Lists("peers", maker.name))
        makers_.push_back(maker);
    }
    std::string json;
    for (const Row& row : Rows())
      if (options_.Lists(row.x < 0 ? "rows" : "curve", row.name) &&
          (row.work.kind != Work::Kind::kFileSize || options_.Has("library")))
        json += (json.empty() ? "" : ",\n  ") + Measure(row);
    if (options_.Has("json"))
      std::ofstream(options_.texts.at("json")) << R"({"conditions": ")" << conditions << R"(", "rows": [)"
                                               << "\n  " << json << "]}\n";
    return complete_ ? 0 : 1;
  }

 private:
  std::string Measure(const Row& row) {
    using Kind = Work::Kind;
    Work work = row.work;
    work.file = options_.texts.at("library").c_str();
    if (work.kind == Kind::kIdle) work.operations = options_.Number("idle");
    if (options_.Number("port") != 0 && work.kind == Kind::kFlood)
      work.operations = std::min(work.operations, 1'000);  // as many as a broker queues for a client
    std::vector<PeerResult> peers;
    for (const Maker& maker : makers_)
      if (peers.size() < (row.alone ? 1 : row.x < 0 ? makers_.size() : 2))  // a curve has one other client
        peers.push_back({maker.name, {}, {}, {}, {}, {}});
    if (work.round_trip_ms != 0 && !world_.without_delay.empty()) {
      for (PeerResult& peer : peers) peer.fault = world_.without_delay;
    } else if (work.kind == Kind::kIdle || work.kind == Kind::kMemory) {
      std::vector<Measurement> all;  // all at once and only once: it takes long, and times do not matter
      for (const Maker& maker : makers_) all.emplace_back(world_, maker, work);
      for (size_t i = 0; i < all.size(); ++i) Note(peers[i], all[i].Collect(), row);
    } else {
      for (int round = 0; round < options_.Number("rounds"); ++round)
        for (size_t i = 0; i < peers.size(); ++i)
          if (peers[i].fault.empty()) Note(peers[i], Measurement(world_, makers_[i], work).Collect(), row);
    }
    complete_ = complete_ && peers[0].fault.empty();
    return Report(row, peers);
  }

  static void Note(PeerResult& peer, const Outcome& outcome, const Row& row) {
    peer.fault = outcome.fault;
    peer.values.push_back(row.cpu ? outcome.cpu_us : outcome.value);
    peer.p99s_us.push_back(outcome.p99_us);
    peer.cpus_us.push_back(outcome.cpu_us);
    peer.rates.push_back(outcome.per_second);
  }

  const Options options_;
  World world_;
  std::vector<Maker> makers_;
  bool complete_ = true;  // this library completed every measurement
};

}  // namespace
}  // namespace zeb::bench

int main(int argc, char** argv) {
  zeb::bench::Options options;
  if (!options.Parse(argc, argv)) {
    std::fprintf(stderr, zeb::bench::k_usage, argv[0]);
    return 2;
  }
  if (options.texts["log"] != "full") ::setlogmask(LOG_UPTO(LOG_WARNING));
  return zeb::bench::Programme(options).Run();
}
