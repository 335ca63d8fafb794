// The client behind one MqttWrapper: its operations, one source an operation, and whatever outlives its
// connections. Application threads, the client's own receive thread and the platform's network thread meet
// here. docs/architecture.md has the objects, the states and the order of the locks.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "mqtt/codec/codec.h"
#include "mqtt/inbound_qos2.h"
#include "mqtt/lifecycle.h"
#include "mqtt/mqtt_wrapper.h"
#include "mqtt/session.h"
#include "util/mutex.h"
#include "util/network_manager.h"
#include "util/zeroed_pages.h"

namespace zeb::mqtt {

/// An operation without a Session among its arguments acts on the current one.
class SelfMqttImpl : public Codec {
 public:
  using ConnectOption = MqttWrapper::ConnectOption;
  using ConnectAck = MqttWrapper::ConnectAck;
  using DisconnectOption = MqttWrapper::DisconnectOption;

  // ---- self_mqtt_impl.cpp: life, status, settings. Any thread.
  explicit SelfMqttImpl(MqttWrapper* wrapper);
  ~SelfMqttImpl();
  SelfMqttImpl(const SelfMqttImpl&) = delete;
  SelfMqttImpl& operator=(const SelfMqttImpl&) = delete;
  /// Waits for every StartClient and StopClient and ends the receive thread, without DISCONNECT.
  void Shutdown();
  Lifecycle::Call Enter() { return Lifecycle::Call(lifecycle_); }  // Shutdown waits while it lives
  MqttWrapper::StatusInfo GetStatusInfo() const;
  Result SetPubAckUserProperties(std::list<PairedString>& user_property);
  Result SetPubRecUserProperties(std::list<PairedString>& user_property);
  Result SetPubCompUserProperties(std::list<PairedString>& user_property);

  // ---- packet_decoder.cpp: inbound packets. Receive thread.
  /// Each returns the bytes used up of `buf`, 0 if its packet is incomplete or refused, and -1 if it is null.
  int DecodePackets(const uint8_t* buf, size_t len);
  int DecodePacket(const uint8_t* buf, size_t len);

  // ---- rendezvous.cpp: the one way out. Any thread.
  /// Sends the body from `begin` to `end` under a fixed header, watches it leave, and waits for the request's
  /// acknowledgement; `ack` is the record that the type fills, or null.
  Result SendAndWait(const uint8_t* end, const uint8_t* begin, MsgType type, bool retain, uint8_t qos,
                     bool dup, int message_id, void* ack);

  // ---- connection.cpp, connect_exchange.cpp. Application thread.
  Result StartClient(ConnectOption& option, ConnectAck* ack);
  Result Connect(ConnectOption& option, ConnectAck* ack);

  // ---- receive_thread.cpp. Application thread.
  Result StartRecvThread();
  Result StopRecvThread();

  // ---- keep_alive.cpp. Ping: any thread; Pong: receive thread.
  Result Ping(bool wait);
  Result Pong();

  // ---- publish.cpp. Publish: application thread; PublishResponse: any.
  Result Publish(MqttWrapper::PublishOption& option);
  Result PublishResponse(MsgType type, uint16_t message_id, uint8_t reason_code,
                         std::list<PairedString>& user_property);

  // ---- subscribe.cpp. Application thread.
  Result Subscribe(MqttWrapper::SubscribeOption& option, MqttWrapper::SubscriptionAck* ack);
  Result Unsubscribe(MqttWrapper::UnsubscribeOption& option, MqttWrapper::UnsubscriptionAck* ack);

  // ---- disconnect.cpp. Application thread, StopClient also inside message_cb; EventCb: network thread.
  Result Disconnect(DisconnectOption* option);
  Result StopClient(DisconnectOption* option);
  void EventCb(util::EventDic& event);

 private:
  friend struct SelfMqttImplPeer;  // tests look at state through it

  // Each holds one operation's work, on the stack of the thread that does it.
  struct Request;   // request.h: one packet out and its answer in
  struct Start;     // connection.cpp: one StartClient
  struct RecvLoop;  // recv_loop.h: one receive thread
  struct Inbound;   // packet_decoder.cpp: one packet in

  // StatusInfo::status and StatusInfo::dis_reason.
  static constexpr int32_t k_idle = 0, k_socket_connected = 1, k_session_established = 2, k_disconnected = 3;
  static constexpr int32_t k_no_reason = 0, k_peer_closed = 1, k_network_failure = 2, k_ping_failure = 3;

  // ---- self_mqtt_impl.cpp
  std::string Tag() const noexcept;  // empty also when there is no memory for the copy
  void SetTag(const std::string& tag);
  /// The next packet identifier; the caller holds message_id_mutex_.
  static int NextMessageId(Session& session);
  std::list<PairedString> AckUserProperties(const std::list<PairedString>& list) const;
  /// Writes the pairs that are whole, and a warning for each that is not.
  void AppendUserProperties(const char* function, PacketWriter& body, std::list<PairedString>& user_property);
  void LogUserProperties(const char* function, const std::list<PairedString>& user_property) const;
  /// Whether the body may be sent. Logs why not.
  bool BodyFits(const char* request, const PacketWriter& body) const;

  // ---- drain.cpp
  enum class QueueLook { kEmpty, kUnsent, kFailed };
  QueueLook LookAtSendQueue(Session& session, uint64_t* number) const;
  void LogDrained(int64_t start_us) const;

  // ---- connect_exchange.cpp
  Result Connect(Session& session, ConnectOption& option, ConnectAck* ack);
  void AppendConnectProperties(PacketWriter& body, ConnectOption& option);
  void AppendWill(PacketWriter& body, MqttWrapper::LastWill& will, bool mqtt5);
  void AppendWillProperties(PacketWriter& body, MqttWrapper::WillProperties& properties);

  // ---- packet_decoder.cpp
  int DecodePackets(Session& session, const uint8_t* buf, size_t len);
  int DecodePacket(Session& session, const uint8_t* buf, size_t len);

  // ---- receive_thread.cpp
  Result StartRecvThread(const std::shared_ptr<Session>& session);
  Result StopRecvThread(Session& session);
  void RecvThread(const std::shared_ptr<Session>& session);  // the thread's body
  void EndSession(Session& session, int32_t dis_reason);     // for a reason other than a stop

  // ---- keep_alive.cpp
  Result Ping(Session& session, bool wait);
  Result Pong(Session& session);
  Result LogJudgement(const PingWatch::Judgement& judgement, const Session& session) const;

  // ---- publish.cpp
  Result PublishResponse(Session& session, MsgType type, uint16_t message_id, uint8_t reason_code,
                         std::list<PairedString>& user_property);

  // ---- subscribe.cpp
  Result AppendSubscribeProperties(PacketWriter& body, MqttWrapper::SubscribeOption& option);
  Result AppendFilters(PacketWriter& body, MqttWrapper::SubscribeOption& option) const;

  // ---- disconnect.cpp
  Result Disconnect(Session& session, DisconnectOption* option);
  void BuildDisconnect(PacketWriter& body, DisconnectOption& option);
  Result FinishStop(Lifecycle::Stop stop, DisconnectOption* option);
  void SayGoodbye(Session& session, DisconnectOption* option);

  const int32_t k_max_tx_buf_ = 131072;  // bytes: largest body the client can build
  const int32_t k_max_rx_buf_ = 131072;  // bytes: largest packet the client can take
  const int32_t max_publish_ = 100000;   // bytes: largest PUBLISH payload
  MqttWrapper* const wrapper_;
  const std::string wake_lock_name_;

  util::Mutex message_id_mutex_;  // the next and each Session's message_id_, from building a body to its copy
  const util::ZeroedPages tx_buf_;

  mutable util::Mutex option_mutex_;  // the next four
  std::string tag_;
  std::list<PairedString> puback_user_property_;
  std::list<PairedString> pubrec_user_property_;
  std::list<PairedString> pubcomp_user_property_;

  // No lock, because the last value written is all that a reader needs.
  std::atomic<int32_t> status_{k_idle};
  std::atomic<int32_t> dis_reason_{k_no_reason};
  std::atomic<int32_t> broker_reason_code_{0};

  util::NetworkManager network_manager_;  // the receive thread registers its callback
  InboundQos2 inbound_;                   // the receive threads, in turn
  Lifecycle lifecycle_;                   // has a lock of its own
};

}  // namespace zeb::mqtt
