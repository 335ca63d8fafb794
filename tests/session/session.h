// A client and the scripted broker it talks to, with what its callbacks reported.
#pragma once

#include <gtest/gtest.h>
#include <syslog.h>

#include <filesystem>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "mqtt/self_mqtt_impl.h"
#include "tests/support/peer.h"
#include "tests/support/scripted_broker.h"
#include "tests/support/system.h"
#include "util/boot_clock.h"

namespace zeb::test {

using mqtt::MqttWrapper;
using mqtt::SelfMqttImpl;
using Peer = mqtt::SelfMqttImplPeer;

constexpr int32_t k_mqtt311 = 1;  // ConnectOption::protocol
constexpr int32_t k_mqtt5 = 2;

/// For a broker on loopback: no pings, and a client identifier of its own.
inline MqttWrapper::ConnectOption Options(int port, int32_t protocol = k_mqtt311, int32_t timeout_s = 10) {
  static std::atomic<int> clients{0};
  MqttWrapper::ConnectOption option;
  option.protocol = protocol;
  option.host = "127.0.0.1";
  option.port = port;
  option.timeout = timeout_s;
  option.client_id = "test" + std::to_string(++clients);
  option.keep_alive = 0;
  return option;
}

inline MqttWrapper::PublishOption Message(const std::string& topic, const std::string& payload, uint8_t qos,
                                          bool retain = false, bool again = false) {
  return {topic, retain, qos, again, payload};
}

struct Session {
  explicit Session(int32_t protocol = k_mqtt311, std::map<MsgType, Handler> handlers = {},
                   int32_t timeout_s = 10, int public_port = 0)
      : broker(std::move(handlers), public_port), option(Options(broker.port(), protocol, timeout_s)) {
    option.message_cb = [this](MqttWrapper::PublishMessage& message) { payloads.Push(message.payload); };
    option.disconnect_cb = [ends = ends](MqttWrapper*, int reason) { ends.Push(reason); };
  }
  [[nodiscard]] Result Start() { return client.StartClient(option, nullptr); }
  [[nodiscard]] Result Stop() { return client.StopClient(nullptr); }
  [[nodiscard]] Result Publish(uint8_t qos, const std::string& payload = "hi") {
    auto message = Message("a/b", payload, qos);
    return client.Publish(message);
  }
  [[nodiscard]] std::future<Result> PublishAsync(uint8_t qos) {
    return std::async(std::launch::async, [this, qos] { return Publish(qos); });
  }
  void Send(const std::string& hex) { broker.connection().Send(Bytes(hex)); }
  /// A round trip: whatever the broker sent before has been dealt with.
  [[nodiscard]] bool Healthy() { return client.Ping(true) == kSuccess && client.GetStatusInfo().status == 2; }

  ScriptedBroker broker;
  MqttWrapper::ConnectOption option;
  Mailbox<std::string> payloads;  // of the messages delivered
  Mailbox<int> ends;              // reasons given to disconnect_cb
  // Ends first: message_cb uses the others.
  std::unique_ptr<SelfMqttImpl> owned = std::make_unique<SelfMqttImpl>(nullptr);
  SelfMqttImpl& client = *owned;
};

/// One that has started already.
struct StartedSession : Session {
  explicit StartedSession(int32_t protocol = k_mqtt311, std::map<MsgType, Handler> handlers = {},
                          int32_t timeout_s = 10)
      : Session(protocol, std::move(handlers), timeout_s) {
    EXPECT_EQ(Start(), kSuccess);
  }
};

/// Lines down to a priority are written as long as it lives. Without those in debug a client sleeps through
/// more.
struct LogMask {
  explicit LogMask(int least) : before(::setlogmask(LOG_UPTO(least))) {}
  ~LogMask() { ::setlogmask(before); }
  LogMask(const LogMask&) = delete;

  const int before;
};

/// Seconds that `call` took.
template <typename Call>
double Seconds(Call call) {
  const int64_t start_us = util::MonotonicUs();
  call();
  return static_cast<double>(util::MonotonicUs() - start_us) / 1e6;
}

inline size_t Entries(const char* folder) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

/// Whether the condition came true; it need not stay so.
template <typename Condition>
bool Eventually(Condition condition) {
  for (int look = 0; look < 20'000; ++look, ::poll(nullptr, 0, 1))
    if (condition()) return true;
  return false;
}

inline bool IsReady(const std::future<Result>& future) {
  return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace zeb::test
