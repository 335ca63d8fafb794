// Everything that belongs to one connection. A Session never serves a second connection, so nothing in it is
// ever reset. The Lifecycle, the receive thread and every request in flight hold references of their own. A
// stop closes the Session in place.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>

#include "mqtt/ack_queue.h"
#include "mqtt/mqtt_wrapper.h"
#include "mqtt/ping_watch.h"
#include "mqtt/send_queue_watch.h"
#include "util/mutex.h"
#include "util/scoped_fd.h"
#include "util/socket.h"
#include "util/ssl_wrapper.h"

namespace zeb::mqtt {

/// Each lock is held for a few instructions and never together with another of these, except that a Ping
/// holds `ping_mutex_` until it has its answer. The destructor may run on any thread, even after the client
/// has gone, and frees the application's callables.
struct Session {
  using ConnectOption = MqttWrapper::ConnectOption;
  static constexpr int32_t k_mqtt311 = 1, k_mqtt5 = 2;  // ConnectOption::protocol
  /// Bits of `asked_`: why the receive thread is to end.
  static constexpr uint8_t k_stop = 1;
  static constexpr uint8_t k_network_lost = 2;

  /// One that is closed from the beginning.
  Session();
  Session(std::shared_ptr<const ConnectOption> option, int32_t timeout_sec,
          std::shared_ptr<util::SocketClient> socket, std::shared_ptr<util::SslWrapper> ssl);

  [[nodiscard]] bool mqtt5() const { return option_->protocol == k_mqtt5; }
  [[nodiscard]] int64_t timeout_us() const { return int64_t{timeout_sec_} * 1'000'000; }
  [[nodiscard]] bool stop_asked() const { return (asked_ & k_stop) != 0; }
  /// Null once the Session is closed.
  [[nodiscard]] std::shared_ptr<util::SocketClient> Socket() const;
  /// The control descriptor, -1 while there is none. It exists from the start of the receive thread until the
  /// thread has been joined.
  [[nodiscard]] int EventFd() const;
  /// Whether the application is ending the session. A reset or a ping that fails is then no reason to report.
  [[nodiscard]] bool StopOnItsWay() const;

  /// Takes over what holds until the next CONNECT, whatever connection it came from.
  void Inherit(const Session& before);
  /// Takes the descriptor over.
  void SetEventFd(util::ScopedFd event_fd);
  void CloseEventFd() { SetEventFd({}); }
  /// Writes one of the control messages to the receive thread and sets its bit, since two messages that are
  /// written before one is read add up to a third text.
  void Ask(uint8_t bit);
  /// Gives up socket and TLS context. Threads that are still sending return, and the last of them frees the
  /// socket.
  void Close();

  const std::shared_ptr<const ConnectOption> option_;
  const int32_t timeout_sec_;  // seconds, -1 to 2147
  const int32_t keep_alive_;   // seconds

  mutable util::Mutex socket_mutex_;  // the next four; of the first two the pointers, not the objects
  std::shared_ptr<util::SocketClient> socket_client_;
  std::shared_ptr<util::SslWrapper> ssl_wrapper_;
  util::ScopedFd event_fd_;
  SendQueueWatch send_queue_;

  mutable util::Mutex send_mutex_;  // the next four
  bool connect_begun_ = false;      // CONNECT is on its way,
  bool connect_sent_ = false;       // and has been written
  bool disconnect_called_ = false;  // DISCONNECT is on its way or out, and no CONNECT has begun since
  PingWatch ping_;

  util::Mutex ping_mutex_;  // one Ping at a time, held for the whole of it
  AckQueue ack_event_q_;    // has a lock of its own
  int32_t message_id_ = 0;  // the identifier handed out last; the client's message_id_mutex_

  std::weak_ptr<Session> last_connected_;  // of a failed start: whose requests may still wait; starts alone

  // The receive thread alone uses these.
  bool connack_seen_ = false;           // the broker has answered CONNECT
  bool stopped_inside_ = false;         // message_cb stopped the client: this thread finishes the stop
  bool send_stalled_ = false;           // its last send ran into the time-out
  std::deque<int64_t> pending_drains_;  // start times of its packets that have not been seen to leave

  // No lock, because one word says it all: the receive thread reads the first two for every packet, and
  // every sender writes the third.
  std::atomic<bool> keep_thread_{false};  // the receive thread goes on
  std::atomic<uint8_t> asked_{0};
  std::atomic<int64_t> last_sent_{0};  // microseconds of CLOCK_BOOTTIME
};

}  // namespace zeb::mqtt
