// Counts how often the threads of this process went back to sleep. Each context switch is one wake-up.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace zeb::bench {

/// The switches of each thread except the calling one.
inline std::map<std::string, long> Switches() {
  std::map<std::string, long> switches;
  const std::string self = std::to_string(::syscall(SYS_gettid));
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string thread = entry.path().filename();
    std::ifstream status(entry.path() / "status");
    for (std::string line; thread != self && std::getline(status, line);) {
      const size_t colon = line.find(':');
      const std::string key = line.substr(0, colon);
      if (key == "voluntary_ctxt_switches" || key == "nonvoluntary_ctxt_switches")
        switches[thread] += std::strtol(line.c_str() + colon + 1, nullptr, 10);
    }
  }
  return switches;
}

}  // namespace zeb::bench
