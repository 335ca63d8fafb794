// One client and its connection, which is made as often as --retry allows. Main thread only.
#pragma once

#include <atomic>
#include <memory>
#include <random>

#include "tools/ending.h"
#include "tools/options.h"

namespace zeb::tools {

class Connection {
 public:
  Connection(const Options& options, Ending& ending);
  /// Closes the connection and ignores failures.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Connects. After a failure that may be temporary, retries with growing pauses as long as --retry and
  /// --retry-time allow. Throws Failure.
  void Open();
  /// Sends DISCONNECT and waits until the connection has ended.
  void Close();

  enum class Event { kReadable, kLost, kTime };
  /// Waits until `fd` is readable (-1: none), the connection is lost, or `until` has come, whichever is
  /// first. Throws Failure once the run ends.
  Event Await(int fd, std::optional<Clock::time_point> until);

  /// After a failed request: whether the connection is lost. Throws Failure once the run ends.
  bool LostBehind();
  /// After a loss: reconnects, or throws Failure if no retry is allowed.
  void Recover();
  /// After a failed request: the same. If the connection is not known to be lost, `trouble` is the reason.
  void RecoverFrom(const std::string& trouble);

  MqttWrapper& client() { return client_; }
  [[nodiscard]] const MqttWrapper::ConnectAck& ack() const { return ack_; }
  /// "HOST:PORT"
  [[nodiscard]] std::string Name() const;
  /// "not authorized (0x87)"
  [[nodiscard]] std::string CodeText(int32_t code) const;

 private:
  /// Outlives the client, whose thread may still report the loss after a stop has returned.
  struct Loss {
    Flag flag;
    std::atomic<int> reason{0};
  };
  std::string Attempt(bool* may_pass);
  std::string LossText() const;

  MqttWrapper::ConnectOption option_;
  const Retry retry_;
  Ending& ending_;
  std::shared_ptr<Loss> loss_ = std::make_shared<Loss>();
  MqttWrapper::ConnectAck ack_;
  std::mt19937 random_{std::random_device{}()};
  MqttWrapper client_;
};

}  // namespace zeb::tools
