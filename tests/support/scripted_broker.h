// A broker on loopback that does as a test tells it: right, wrong or not at all. It keeps every packet that
// it received, for a test to compare byte by byte.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mqtt/mqtt_wrapper.h"
#include "tests/support/loopback.h"

namespace zeb::test {

using MsgType = mqtt::MqttWrapper::MessageType;

/// Bytes from words of hexadecimal digits and, between quotes, of text: "40 02 0007", "0001 'a'".
std::string Bytes(const std::string& text);
/// Digits alone.
std::string Hex(const std::string& bytes);

/// One packet from the client, whole. Default-constructed: the packet that did not come in time.
struct Packet {
  std::string raw;
  size_t body_at = 0;

  [[nodiscard]] MsgType type() const { return static_cast<MsgType>(raw.empty() ? 0 : raw[0] >> 4 & 15); }
  [[nodiscard]] int qos() const { return raw.empty() ? 0 : raw[0] >> 1 & 3; }
  [[nodiscard]] std::string body() const { return raw.substr(body_at); }
  [[nodiscard]] std::string id() const;  // two bytes
  [[nodiscard]] std::string hex() const { return Hex(raw); }
};

/// The broker's end of one connection. Any thread.
class Connection {
 public:
  /// Queues bytes; they go out as the client takes them.
  void Send(const std::string& bytes);
  /// Closes once everything queued has gone out, or at once, so that the client sees a reset.
  void Close(bool at_once = false);
  /// Takes nothing more from the client.
  void StopReading();
  /// In a handler: sends what is queued and waits. False once the client has closed.
  [[nodiscard]] bool Pause(int ms);

 private:
  friend class ScriptedBroker;
  explicit Connection(class ScriptedBroker& broker) : broker_(broker) {}

  ScriptedBroker& broker_;
  std::string in_;  // the broker's thread alone, like the next; all others are guarded by the broker's mutex
  bool mqtt5_ = false;
  util::ScopedFd fd_;  // changed under the mutex, by the broker's thread alone
  std::string out_;
  bool reading_ = true;
  bool closing_ = false;
  bool resetting_ = false;
};

/// Runs on the broker's thread for every packet of a type; RESERVED: for every new connection.
using Handler = std::function<void(Connection&, const Packet&)>;
/// Always the same answer.
inline Handler Reply(const std::string& hex) {
  return [hex](Connection& connection, const Packet&) { connection.Send(Bytes(hex)); };
}
/// No answer.
inline void Ignore(Connection& /*connection*/, const Packet& /*packet*/) {}

class ScriptedBroker {
 public:
  /// Answers as a good broker does.
  static void Answer(Connection& connection, const Packet& packet);

  /// `handlers` take the place of `Answer` for their types. Listens on a free port of 127.0.0.1, or, in a
  /// network namespace of the test's own, on `public_port` of every address.
  explicit ScriptedBroker(std::map<MsgType, Handler> handlers = {}, int public_port = 0);
  ~ScriptedBroker();
  ScriptedBroker(const ScriptedBroker&) = delete;

  [[nodiscard]] int port() const { return listener_.port; }
  /// The newest connection; it lives as long as the broker. Not before CONNECT has come in.
  [[nodiscard]] Connection& connection() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return *connections_.back();
  }
  /// How many connections are open.
  [[nodiscard]] size_t Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(std::count_if(connections_.begin(), connections_.end(),
                                             [](const auto& each) { return each->fd_.valid(); }));
  }
  /// Every packet of the type, from all connections in order of arrival; waits for `at_least` so many.
  [[nodiscard]] std::vector<Packet> Received(MsgType type, size_t at_least = 0) const {
    return packets_.Await(at_least, [type](const Packet& packet) { return packet.type() == type; });
  }
  [[nodiscard]] size_t Count(MsgType type) const { return Received(type).size(); }
  /// Waits for the `nth` packet of the type, counted from 1.
  [[nodiscard]] Packet Await(MsgType type, size_t nth = 1) const {
    const auto received = Received(type, nth);
    return received.size() < nth ? Packet() : received[nth - 1];
  }

 private:
  friend class Connection;
  /// Changes what the mutex guards, for the broker's thread to look at.
  void Change(const std::function<void()>& change);
  void Run();
  void Accept();
  void Read(Connection& connection);
  void Write(Connection& connection);  // with the mutex held

  const std::map<MsgType, Handler> handlers_;
  const Listener listener_;
  const util::ScopedFd wake_;
  const Mailbox<Packet> packets_;
  std::mutex mutex_;  // guards everything below
  std::vector<std::unique_ptr<Connection>> connections_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace zeb::test
