// What the command line asks for, already checked. Main thread only.
#pragma once

#include <string>
#include <vector>

#include "mqtt/mqtt_wrapper.h"

namespace zeb::tools {

/// Limits on connecting again. A limit of 0 does not apply; if both are 0, there is no second attempt.
struct Retry {
  [[nodiscard]] bool enabled() const { return count > 0 || seconds > 0; }
  int count = 0;
  int seconds = 0;
};

enum class Command { kPublish, kSubscribe, kPing, kStatus };
enum class Source { kText, kFile, kLines, kStdin };  // of the payload

struct Options {
  Command command = Command::kStatus;
  bool debug = false;
  mqtt::MqttWrapper::ConnectOption connect;
  Retry retry;
  int qos = 0;  // pub, sub

  // pub
  Source source = Source::kText;
  mqtt::MqttWrapper::PublishOption message;  // the payload is set only with -m
  std::string file;

  // sub
  std::vector<std::string> filters;
  std::string format = "%p";
  bool newline = true;
  int seconds = 0;  // -W; 0: no limit

  int count = 0;          // -C of sub and ping; 0: no limit
  double interval_s = 1;  // ping
};

/// Returns false if the program must end with `exit_code`; everything has been printed then.
bool ParseOptions(int argc, const char* const* argv, Options& options, int& exit_code);

}  // namespace zeb::tools
