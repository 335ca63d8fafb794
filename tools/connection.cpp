// Every wait also watches for the end of the run, so that a signal never waits for the network.
#include "tools/connection.h"

#include <poll.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "tools/output.h"

namespace zeb::tools {
namespace {

using std::chrono::milliseconds;
constexpr milliseconds kFirstPause{500};
constexpr milliseconds kLongestPause{30'000};
constexpr milliseconds kLossIsTold{1'000};  // a request may fail a moment before the loss is reported
constexpr int32_t kMqtt5 = 2;

// Whether the refusal is due to the broker's present state, not to this client.
bool MayPass(int32_t code) {
  using Code = MqttWrapper::ConnectReasonCode;
  switch (static_cast<Code>(code)) {
    case Code::SERVER_UNAVAILABLE_V4:
    case Code::SERVER_UNAVAILABLE:
    case Code::SERVER_BUSY:
    case Code::QUOTA_EXCEEDED:
    case Code::CONNECTION_RATE_EXCEEDED:
      return true;
    default:
      return code == MqttWrapper::k_no_reason_code;
  }
}

}  // namespace

Connection::Connection(const Options& options, Ending& ending)
    : option_(options.connect), retry_(options.retry), ending_(ending) {}

Connection::~Connection() { Close(); }

void Connection::Close() { (void)client_.StopClient(nullptr); }

std::string Connection::Name() const {
  const bool ipv6 = option_.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + option_.host + "]" : option_.host) + ":" + std::to_string(option_.port);
}

std::string Connection::CodeText(int32_t code) const {
  std::string name = option_.protocol == kMqtt5 ? MqttWrapper::GetConnectReasonCodeInStr(code)
                                                : MqttWrapper::GetConnectReturnCodeInStr(code);
  if (name == "UNKNOWN") name = "code";
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return c == '_' ? ' ' : static_cast<char>(std::tolower(c)); });
  char number[16] = {};
  std::snprintf(number, sizeof number, " (0x%02X)", static_cast<unsigned int>(code));
  return name + number;
}

// Makes one attempt. Returns what went wrong, or an empty text.
std::string Connection::Attempt(bool* may_pass) {
  Close();  // cleans up after an earlier connection
  ending_.Check();
  loss_ = std::make_shared<Loss>();
  option_.disconnect_cb = [loss = loss_](MqttWrapper*, int reason) {
    loss->reason = reason;
    loss->flag.Set();
  };
  ack_ = {};
  const Result result = client_.StartClient(option_, &ack_);
  if (result == kSuccess) return {};
  ending_.Check();
  *may_pass = MayPass(ack_.reason_code);
  if (ack_.reason_code != MqttWrapper::k_no_reason_code && ack_.reason_code != 0)
    return Name() + " refuses: " + CodeText(ack_.reason_code);
  switch (result) {
    case kFailure:
      return Name() + " does not answer as an MQTT broker";
    case kInvalidArgument:
      return std::string("cannot reach ") + Name() + (option_.tls ? " or not trust it" : "") +
             " (--debug shows more)";
    case kNoAddress:
      return "no address to reach " + Name() + (option_.iface_name.empty() ? "" : " over ") +
             option_.iface_name;
    default:
      *may_pass = false;
      return "cannot use the CA, certificate or key file (--debug shows more)";
  }
}

void Connection::Open() {
  const auto give_up = Clock::now() + std::chrono::seconds(retry_.seconds);
  milliseconds pause = kFirstPause;
  for (int failures = 1;; ++failures) {
    bool may_pass = true;
    const std::string trouble = Attempt(&may_pass);
    if (trouble.empty()) return;
    // Waits a random part of the pause, at least half, so that many clients do not reconnect at once.
    const milliseconds wait(
        std::uniform_int_distribution<int64_t>(pause.count() / 2, pause.count())(random_));
    const bool allowed = retry_.enabled() && may_pass && (retry_.count == 0 || failures <= retry_.count) &&
                         (retry_.seconds == 0 || Clock::now() + wait < give_up);
    if (!allowed) throw Failure(kNoConnection, trouble);
    char again[40] = {};
    std::snprintf(again, sizeof again, "; trying again in %.1f s", static_cast<double>(wait.count()) / 1'000);
    Say(trouble + again);
    pollfd ending{ending_.fd(), POLLIN, 0};
    (void)::poll(&ending, 1, static_cast<int>(wait.count()));
    pause = std::min(2 * pause, kLongestPause);
  }
}

Connection::Event Connection::Await(int fd, std::optional<Clock::time_point> until) {
  for (;;) {
    pollfd fds[] = {{ending_.fd(), POLLIN, 0}, {loss_->flag.fd(), POLLIN, 0}, {fd, POLLIN, 0}};
    const int ready = ::poll(fds, std::size(fds), PollTimeout(until));
    ending_.Check();
    if (ready == 0) return Event::kTime;
    if (ready < 0) continue;  // EINTR
    return fds[1].revents != 0 ? Event::kLost : Event::kReadable;
  }
}

bool Connection::LostBehind() { return Await(-1, Clock::now() + kLossIsTold) == Event::kLost; }

std::string Connection::LossText() const {
  const int32_t code = client_.GetStatusInfo().reason_code;
  if (code != 0) return "the broker disconnected: " + CodeText(code);
  switch (loss_->reason) {
    case 1:
      return "the broker closed it";
    case 3:
      return "the broker did not answer a ping";
    default:
      return "network or protocol error (--debug shows more)";
  }
}

void Connection::RecoverFrom(const std::string& trouble) {
  if (LostBehind()) {
    Recover();
    return;
  }
  if (!retry_.enabled()) throw Failure(kFailed, trouble);
  Say(trouble + "; reconnecting");
  Open();
}

void Connection::Recover() {
  const std::string trouble = "connection to " + Name() + " lost: " + LossText();
  if (!retry_.enabled()) throw Failure(kLost, trouble);
  Say(trouble);
  Open();
}

}  // namespace zeb::tools
