// What the command line asks for, checked.
#pragma once

#include <string>
#include <vector>

#include "mqtt/mqtt_wrapper.h"

namespace zeb::tools {

/// Bounds on connecting again; both 0: not at all, one 0: that bound does not count.
struct Retry {
  [[nodiscard]] bool enabled() const { return count > 0 || seconds > 0; }
  int count = 0;
  int seconds = 0;
};

enum class Command { kPublish, kSubscribe, kPing, kStatus };
enum class Source { kText, kFile, kLines, kStdin };  // of what is published

struct Options {
  Command command = Command::kStatus;
  bool debug = false;
  mqtt::MqttWrapper::ConnectOption connect;
  Retry retry;
  int qos = 0;  // pub, sub

  // pub
  Source source = Source::kText;
  mqtt::MqttWrapper::PublishOption message;  // the payload is empty but for -m
  std::string file;

  // sub
  std::vector<std::string> filters;
  std::string format = "%p";
  bool newline = true;
  int seconds = 0;  // -W; 0: no limit

  int count = 0;          // -C of sub and ping; 0: no limit
  double interval_s = 1;  // ping
};

/// False: the program ends with `exit_code`, everything is said.
bool ParseOptions(int argc, const char* const* argv, Options& options, int& exit_code);

}  // namespace zeb::tools
