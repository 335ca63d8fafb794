// The pub command: publishes one message, or every line of standard input. Main thread only.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "tools/commands.h"
#include "tools/output.h"
#include "tools/progress.h"

namespace zeb::tools {
namespace {

constexpr size_t kMaxPayload = 100'000;  // bytes; limit of the library

[[noreturn]] void TooLarge(const std::string& what) {
  throw Failure(kFailed,
                what + " is larger than the " + std::to_string(kMaxPayload) + " bytes that fit in a message");
}

// For a descriptor that somebody else has made non-blocking.
bool AwaitInput(int fd) {
  pollfd input{fd, POLLIN, 0};
  return ::poll(&input, 1, -1) >= 0 || errno == EINTR;
}

/// Reads a descriptor line by line or as a whole.
class Input {
 public:
  Input(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

  /// Reads once what there is. Returns false at the end of the input.
  bool Fill() {
    std::array<char, 16'384> block{};
    ssize_t got = 0;
    do got = ::read(fd_, block.data(), block.size());
    while (got < 0 && (errno == EINTR || (errno == EAGAIN && AwaitInput(fd_))));
    if (got < 0) throw Failure(kUsage, name_ + ": " + std::strerror(errno));
    buffer_.append(block.data(), static_cast<size_t>(got));
    return got > 0;
  }

  /// Takes the next line, without its newline. At the end of the input the last line may lack one.
  bool TakeLine(std::string& line, bool at_end) {
    const size_t newline = buffer_.find('\n', begin_);
    const size_t length = std::min(newline, buffer_.size()) - begin_;
    if (length > kMaxPayload) TooLarge(name_ + ": a line");
    if (newline == std::string::npos) {
      buffer_.erase(0, begin_);
      begin_ = 0;
      if (!at_end || buffer_.empty()) return false;
    }
    line = buffer_.substr(begin_, length);
    begin_ += std::min(length + 1, buffer_.size() - begin_);
    return true;
  }

  std::string TakeAll() {
    while (Fill()) {
      if (buffer_.size() > kMaxPayload) TooLarge(name_);
    }
    return std::move(buffer_);
  }

 private:
  const int fd_;
  const std::string name_;
  std::string buffer_;
  size_t begin_ = 0;  // of the bytes not yet taken
};

std::string FileContent(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Failure(kUsage, path + ": " + std::strerror(errno));
  std::string content = Input(fd, path).TakeAll();
  ::close(fd);
  return content;
}

// Sends the message. With --retry, repeats it over a new connection after a failure.
void Send(Connection& connection, MqttWrapper::PublishOption& message, int timeout) {
  for (;;) {
    const Result result = connection.client().Publish(message);
    if (result == kSuccess) return;
    if (result == kInvalidArgument)
      throw Failure(kFailed,
                    "the message does not fit in a packet: topic and payload together are too large");
    connection.RecoverFrom(result == kSendFailed
                               ? "the message could not be sent"
                               : "the broker has not acknowledged the message within " +
                                     std::to_string(timeout) + " s; it may have arrived anyway");
  }
}

void SendLines(Connection& connection, const Options& options) {
  Input input(STDIN_FILENO, "standard input");
  Progress progress(RemainingBytes(STDIN_FILENO));
  MqttWrapper::PublishOption message = options.message;
  for (bool at_end = false;;) {
    while (input.TakeLine(message.payload, at_end)) {
      Send(connection, message, options.connect.timeout);
      progress.Add(message.payload.size() + 1);
    }
    if (at_end) return;
    if (connection.Await(STDIN_FILENO, std::nullopt) == Connection::Event::kLost)
      connection.Recover();
    else
      at_end = !input.Fill();
  }
}

}  // namespace

int Publish(const Options& options) {
  MqttWrapper::PublishOption message = options.message;
  // Read first: until then a signal may simply kill the process.
  if (options.source == Source::kFile) message.payload = FileContent(options.file);
  if (options.source == Source::kStdin) message.payload = Input(STDIN_FILENO, "standard input").TakeAll();
  if (message.payload.size() > kMaxPayload) TooLarge("the message");

  Ending ending;
  Connection connection(options, ending);
  const Watch watch(connection.client(), ending, false, std::nullopt);
  connection.Open();
  if (options.source == Source::kLines) {
    SendLines(connection, options);
  } else {
    std::optional<Progress> progress;
    if (options.source != Source::kText) progress.emplace(message.payload.size());
    Send(connection, message, options.connect.timeout);
    if (progress) progress->Add(message.payload.size());
  }
  connection.Close();
  return kDone;
}

}  // namespace zeb::tools
