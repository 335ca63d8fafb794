// zebmqtt: publishes, subscribes, pings and asks for the status, by the library's public interface alone.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "tools/commands.h"
#include "tools/output.h"

namespace {

using zeb::tools::Options;

// In the order of Command.
constexpr int (*kCommands[])(const Options&) = {zeb::tools::Publish, zeb::tools::Subscribe, zeb::tools::Ping,
                                                zeb::tools::Status};

// A socket that got the number of a closed standard stream would be written to by mistake.
void OpenStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) (void)!::open("/dev/null", O_RDWR);
  }
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardStreams();
  (void)std::signal(SIGPIPE, SIG_IGN);  // cannot fail; the write that fails tells
  Options options;
  int exit_code = 0;
  if (!zeb::tools::ParseOptions(argc, argv, options, exit_code)) return exit_code;
  zeb::tools::OpenLog(options.debug);
  try {
    return kCommands[static_cast<size_t>(options.command)](options);
  } catch (const zeb::tools::Failure& failure) {
    if (*failure.what() != '\0') zeb::tools::Say(failure.what());
    return failure.code;
  } catch (const std::exception& error) {
    zeb::tools::Say(error.what());
    return zeb::tools::kFailed;
  }
}
