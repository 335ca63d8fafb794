// What tests see and set inside a client. Stamps stand for time that has passed.
#pragma once

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "mqtt/self_mqtt_impl.h"

namespace zeb::mqtt {

struct SelfMqttImplPeer {
  static std::string Tag(const SelfMqttImpl& client) { return client.Tag(); }
  static void SetTag(SelfMqttImpl& client, const std::string& tag) { client.SetTag(tag); }
  static void SetMessageId(SelfMqttImpl& client, int32_t last) { client.message_id_ = last; }
  static void SetPingWait(SelfMqttImpl& client, bool wait) { client.ping_wait_ = wait; }

  /// When a ping was sent and its answer received, in microseconds of CLOCK_BOOTTIME; 0: none.
  using Stamps = std::pair<int64_t, int64_t>;
  static void SetStamps(SelfMqttImpl& client, Stamps stamps) {
    const util::MutexLock lock(client.stamp_mutex_);
    std::tie(client.ping_sent_, client.pong_recv_) = stamps;
  }
  static Stamps GetStamps(SelfMqttImpl& client) {
    const util::MutexLock lock(client.stamp_mutex_);
    return {client.ping_sent_, client.pong_recv_};
  }

  static AckQueue& Queue(SelfMqttImpl& client) { return client.ack_event_q_; }
  struct QueuedEvent : AckRecords {
    MsgType type;
    uint16_t message_id;
  };
  /// Copies of the queued events, oldest first.
  static std::vector<QueuedEvent> QueuedEvents(SelfMqttImpl& client) {
    const util::MutexLock lock(client.ack_event_q_.mutex_);
    std::vector<QueuedEvent> events;
    for (const auto& [number, arrived_us, event, kept_for] : client.ack_event_q_.ack_event_l_)
      events.push_back(
          {event.records != nullptr ? *event.records : AckRecords(), event.type, event.message_id});
    return events;
  }
  /// Whether the receive thread is to go on.
  static std::atomic<bool>& KeepThread(SelfMqttImpl& client) { return client.keep_thread_; }
  /// Inbound QoS 2 messages whose PUBREL is still due, oldest first. On the receive thread, or without one.
  static const auto& DueReleases(const SelfMqttImpl& client) { return client.inbound_.records(); }
  static int SocketFd(const SelfMqttImpl& client) {
    const auto socket = client.SharedSocket();
    return socket != nullptr ? socket->GetFd() : -1;
  }

  using MessageCallback = std::function<void(MqttWrapper::PublishMessage&)>;
  /// A session over `socket`, as after CONNACK, but without a receive thread: its steps are called here.
  static void SetConnected(SelfMqttImpl& client, int32_t protocol, MessageCallback message_cb,
                           const std::shared_ptr<util::SocketClient>& socket) {
    MqttWrapper::ConnectOption option;
    option.protocol = protocol;
    option.message_cb = std::move(message_cb);
    client.SetOptions(std::make_shared<const MqttWrapper::ConnectOption>(option));
    client.timeout_sec_ = 1;
    client.ReplaceConnection(socket, nullptr);
    client.connect_state_ = SelfMqttImpl::ConnectState::kSent;
    client.status_ = SelfMqttImpl::kSessionEstablished;
    client.keep_thread_ = true;
  }
  static std::shared_ptr<util::SocketClient> Socket(const SelfMqttImpl& client) {
    return client.SharedSocket();
  }
  using RecvLoop = SelfMqttImpl::RecvLoop;  // complete where mqtt/recv_loop.h is included
  static void ReceiveAvailable(SelfMqttImpl& client, RecvLoop& loop) { client.ReceiveAvailable(loop); }
  static int32_t DisReason(const SelfMqttImpl& client) { return client.dis_reason_; }
  /// Bytes of an unfinished packet: those in the buffer, and those of an oversized one beyond it.
  static std::pair<size_t, size_t> LeftBytes(const SelfMqttImpl& client) {
    return {static_cast<size_t>(client.left_buf_size_), static_cast<size_t>(client.extra_packet_size_)};
  }
};

}  // namespace zeb::mqtt
