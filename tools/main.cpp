// zebmqtt: publishes, subscribes, pings and shows the status, using only the library's public interface.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "tools/commands.h"
#include "tools/output.h"

namespace {

using zeb::tools::Options;

// In the order of the enumerators of Command.
constexpr int (*kCommands[])(const Options&) = {zeb::tools::Publish, zeb::tools::Subscribe, zeb::tools::Ping,
                                                zeb::tools::Status};

// A socket with the number of a closed standard stream would be written to by mistake.
void OpenStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) (void)!::open("/dev/null", O_RDWR);
  }
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardStreams();
  (void)std::signal(SIGPIPE, SIG_IGN);  // cannot fail; a failing write reports EPIPE instead
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
