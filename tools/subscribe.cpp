// The sub command: the receive thread prints, the main thread waits for the end.
#include "tools/commands.h"
#include "tools/format.h"
#include "tools/output.h"

namespace zeb::tools {
namespace {

/// Prints messages. The last one that was asked for ends the run. Receive thread only.
class Printer {
 public:
  Printer(const Options& options, Ending& ending)
      : format_(options.format), newline_(options.newline), count_(options.count), ending_(ending) {}

  void Print(MqttWrapper::PublishMessage& message) {
    if (over_) return;  // a signal does not set this: what has been acknowledged is printed
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    std::string text = Render(format_, message, now);
    if (newline_) text += '\n';
    over_ = !WriteOutput(text, ending_) || ++printed_ == count_;
    if (printed_ != count_ || count_ == 0) return;
    ending_.Begin(kDone);
    (void)message.wrapper->StopClient(nullptr);  // at once, so that no further message is acknowledged
  }

 private:
  const std::string format_;
  const bool newline_;
  const int64_t count_;  // 0: no limit
  Ending& ending_;
  int64_t printed_ = 0;
  bool over_ = false;
};

// Each filter has its own request, because the library reports only the first filter's result. Returns false
// if the broker did not answer.
bool SubscribeTo(Connection& connection, const std::string& filter, const Options& options) {
  MqttWrapper::SubscribeOption request;
  request.topics[filter] = static_cast<uint8_t>(options.qos);
  request.user_property = options.connect.user_property;
  MqttWrapper::SubscriptionAck ack;
  const Result result = connection.client().Subscribe(request, &ack);
  if (result == kSuccess && ack.reason_code <= 2) {
    if (ack.reason_code < options.qos) Say(filter + ": granted at QoS " + std::to_string(ack.reason_code));
    return true;
  }
  if (result == kSuccess)
    throw Failure(kFailed,
                  filter + ": the broker refused the subscription: " + connection.CodeText(ack.reason_code));
  return false;
}

// Begins again with the first filter after a reconnect.
void SubscribeToAll(Connection& connection, const Options& options) {
  for (size_t i = 0; i < options.filters.size();) {
    if (SubscribeTo(connection, options.filters[i], options)) {
      ++i;
      continue;
    }
    connection.RecoverFrom(options.filters[i] + ": the broker did not answer the subscription");
    i = 0;
  }
}

}  // namespace

int Subscribe(const Options& options) {
  Ending ending;
  Printer printer(options, ending);
  Options with_callback = options;
  with_callback.connect.message_cb = [&printer](auto& message) { printer.Print(message); };
  std::optional<Clock::time_point> deadline;
  if (options.seconds > 0) deadline = Clock::now() + std::chrono::seconds(options.seconds);
  Connection connection(with_callback, ending);
  const Watch watch(connection.client(), ending, true, deadline);

  bool subscribed = false;
  try {
    connection.Open();
    for (;; connection.Recover()) {
      SubscribeToAll(connection, options);
      subscribed = true;
      (void)connection.Await(-1, std::nullopt);  // the end of the run is thrown, so this is a loss
    }
  } catch (const Failure& failure) {
    if (failure.code != kTimedOut || !subscribed || options.count != 0) throw;
    connection.Close();  // without -C, -W only says how long to listen
    return kDone;
  }
}

}  // namespace zeb::tools
