// What tests see and set inside a client. Stamps stand for time that has passed.
#pragma once

#include <algorithm>
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
  static std::shared_ptr<Session> Current(const SelfMqttImpl& client) { return client.lifecycle_.Current(); }
  static void SetMessageId(SelfMqttImpl& client, int32_t last) { Current(client)->message_id_ = last; }
  static void SetPingWait(SelfMqttImpl& client, bool wait) { Current(client)->ping_.Begin(wait, false); }

  /// When a ping was sent and its answer received, in microseconds of CLOCK_BOOTTIME; 0: none.
  using Stamps = std::pair<int64_t, int64_t>;
  static void SetStamps(SelfMqttImpl& client, Stamps stamps) {
    const auto session = Current(client);
    const util::MutexLock lock(session->send_mutex_);
    std::tie(session->ping_.ping_sent_, session->ping_.pong_recv_) = stamps;
  }
  static Stamps GetStamps(SelfMqttImpl& client) {
    const auto session = Current(client);
    const util::MutexLock lock(session->send_mutex_);
    return {session->ping_.ping_sent_, session->ping_.pong_recv_};
  }

  static AckQueue& Queue(SelfMqttImpl& client) { return Current(client)->ack_event_q_; }
  struct QueuedEvent : AckRecords {
    MsgType type;
    uint16_t message_id;
    uint64_t number;
  };
  /// Copies of the events, oldest first: the listed ones and those that requests have not taken yet.
  static std::vector<QueuedEvent> QueuedEvents(SelfMqttImpl& client) {
    const auto session = Current(client);
    AckQueue& queue = session->ack_event_q_;
    const util::MutexLock lock(queue.mutex_);
    std::vector<QueuedEvent> events;
    const auto add = [&](const auto& entries) {
      for (const auto& [number, arrived, event] : entries)
        events.push_back(
            {event.records != nullptr ? *event.records : AckRecords(), event.type, event.message_id, number});
    };
    add(queue.ack_event_l_);
    for (const auto* waiter : queue.waiters_) add(waiter->answer_);
    std::sort(events.begin(), events.end(), [](auto& one, auto& other) { return one.number < other.number; });
    return events;
  }
  /// Whether the receive thread is to go on.
  static std::atomic<bool>& KeepThread(SelfMqttImpl& client) { return Current(client)->keep_thread_; }
  /// Inbound QoS 2 messages whose PUBREL is still due, oldest first. On the receive thread, or without one.
  static const auto& DueReleases(const SelfMqttImpl& client) { return client.inbound_.records(); }
  static int SocketFd(const SelfMqttImpl& client) {
    const auto socket = Current(client)->Socket();
    return socket != nullptr ? socket->GetFd() : -1;
  }

  using MessageCallback = std::function<void(MqttWrapper::PublishMessage&)>;
  /// A session over `socket`, as after CONNACK, but without a receive thread: its steps are called here.
  static void SetConnected(SelfMqttImpl& client, MqttWrapper::ConnectOption option,
                           const std::shared_ptr<util::SocketClient>& socket) {
    const auto session = std::make_shared<Session>(
        std::make_shared<const MqttWrapper::ConnectOption>(std::move(option)), 1, socket, nullptr);
    session->connect_sent_ = true;
    session->keep_thread_ = true;
    (void)client.lifecycle_.Install(session);
    client.status_ = SelfMqttImpl::k_session_established;
  }
  static void SetConnected(SelfMqttImpl& client, int32_t protocol, MessageCallback message_cb,
                           const std::shared_ptr<util::SocketClient>& socket) {
    MqttWrapper::ConnectOption option;
    option.protocol = protocol;
    option.message_cb = std::move(message_cb);
    SetConnected(client, std::move(option), socket);
  }
  /// As the receive thread calls it, with a Session at hand.
  static int DecodePackets(SelfMqttImpl& client, Session& session, const uint8_t* buf, size_t len) {
    return client.DecodePackets(session, buf, len);
  }
  using RecvLoop = SelfMqttImpl::RecvLoop;  // complete where mqtt/recv_loop.h is included
  static int32_t DisReason(const SelfMqttImpl& client) { return client.dis_reason_; }
};

}  // namespace zeb::mqtt
