// The client behind one MqttWrapper: one class, its operations spread over one source a concern.
//
// Three kinds of thread meet here: application threads (public operations), the client's own receive thread
// (decoding, keep-alive, both callbacks) and the platform's network thread (EventCb). docs/architecture.md
// has the lock table. The rules in short: no lock is held over a callback or a wait for the network; the
// receive thread takes neither thread_mutex_ nor tx_mutex_ on its own account.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "mqtt/ack_queue.h"
#include "mqtt/codec/codec.h"
#include "mqtt/inbound_qos2.h"
#include "mqtt/mqtt_wrapper.h"
#include "util/condition.h"
#include "util/mutex.h"
#include "util/network_manager.h"
#include "util/scoped_fd.h"
#include "util/socket.h"
#include "util/ssl_wrapper.h"
#include "util/thread.h"
#include "util/zeroed_pages.h"

namespace zeb::mqtt {

class SelfMqttImpl : public Codec {
 public:
  using ConnectOption = MqttWrapper::ConnectOption;
  using ConnectAck = MqttWrapper::ConnectAck;
  using PublishMessage = MqttWrapper::PublishMessage;

  // ---- self_mqtt_impl.cpp: life, status, settings. Any thread.
  explicit SelfMqttImpl(MqttWrapper* wrapper);
  ~SelfMqttImpl();
  SelfMqttImpl(const SelfMqttImpl&) = delete;
  SelfMqttImpl& operator=(const SelfMqttImpl&) = delete;

  /// Waits for a StopClient that runs on another thread and ends the receive thread, without DISCONNECT.
  void Shutdown();
  MqttWrapper::StatusInfo GetStatusInfo() const;
  Result SetPubAckUserProperties(std::list<PairedString>& user_property);
  Result SetPubRecUserProperties(std::list<PairedString>& user_property);
  Result SetPubCompUserProperties(std::list<PairedString>& user_property);

  // ---- packet_decoder.cpp: inbound packets. Receive thread.
  /// Decodes the complete packets at the front of `buf`; returns the bytes used up.
  int DecodePackets(const uint8_t* buf, size_t len);
  /// Decodes one packet; 0: incomplete, or of a type that is refused; -1: null `buf`.
  int DecodePacket(const uint8_t* buf, size_t len);

  // ---- rendezvous.cpp: the one way out. Any thread.
  /// Sends the body from `begin` to `end` under a fixed header, watches it leave, and waits for the request's
  /// acknowledgement; `ack` is the record that the type fills, or null. `body_lock`, when given, is the lock
  /// under which the body was built: released as soon as the body has been copied. A `session` other than 0
  /// is the queue's that the packet belongs to: `kFailure` when the client was restarted since.
  Result SendAndWait(const uint8_t* end, const uint8_t* begin, MsgType type, bool retain, uint8_t qos,
                     bool dup, int message_id, void* ack, util::MutexLock* body_lock = nullptr,
                     uint64_t session = 0);

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
                         std::list<PairedString>& user_property, uint64_t session = 0);

  // ---- subscribe.cpp. Application thread.
  Result Subscribe(MqttWrapper::SubscribeOption& option, MqttWrapper::SubscriptionAck* ack);
  Result Unsubscribe(MqttWrapper::UnsubscribeOption& option, MqttWrapper::UnsubscriptionAck* ack);

  // ---- disconnect.cpp. Application thread, StopClient also inside message_cb; EventCb: the network's
  // thread.
  Result Disconnect(MqttWrapper::DisconnectOption* option);
  Result StopClient(MqttWrapper::DisconnectOption* option);
  void EventCb(util::EventDic& event);

 private:
  friend struct SelfMqttImplPeer;  // tests set stamps and look at state through it

  struct RecvLoop;       // receive_thread.cpp: what lives as long as one receive thread
  struct InboundPacket;  // packet_decoder.cpp: one packet being decoded

  enum Status : int32_t { kIdle = 0, kSocketConnected = 1, kSessionEstablished = 2, kDisconnected = 3 };
  enum DisReason : int32_t { kNoReason = 0, kPeerClosed = 1, kNetworkFailure = 2, kKeepAliveFailure = 3 };
  static constexpr int32_t k_mqtt5 = 2;           // ConnectOption::protocol
  static constexpr int32_t k_max_timeout = 2147;  // seconds; more microseconds do not fit 32 bits

  // ---- self_mqtt_impl.cpp
  std::string Tag() const noexcept;  // empty also when there is no memory for the copy
  void SetTag(const std::string& tag);
  std::shared_ptr<const ConnectOption> Options() const;
  void SetOptions(std::shared_ptr<const ConnectOption> option);
  bool IsMqtt5() const { return Options()->protocol == k_mqtt5; }
  std::list<PairedString> AckUserProperties(const std::list<PairedString>& list) const;
  std::shared_ptr<util::SocketClient> SharedSocket() const;
  int NextMessageId();
  /// Writes the pairs that are whole; logs a warning for each that is not.
  void AppendUserProperties(const char* function, PacketWriter& body, std::list<PairedString>& user_property);
  void LogUserProperties(const char* function, const std::list<PairedString>& user_property) const;
  /// Whether the body may be sent; logs why not.
  bool BodyFits(const char* request, const PacketWriter& body) const;

  // ---- rendezvous.cpp
  Result CheckSendable(const util::SocketClient* socket, MsgType type);
  ssize_t SendPacket(util::SocketClient& socket, const uint8_t* packet, size_t size, bool last);
  struct SentPacket;
  Result WritePacket(util::SocketClient& socket, const uint8_t* packet, int size, int remaining_length,
                     MsgType type, SentPacket* sent);
  enum class QueueLook { kEmpty, kUnsent, kFailed };
  QueueLook LookAtSendQueue(const util::SocketClient* socket, uint64_t number);
  Result DrainSendQueue(const util::SocketClient& socket, SentPacket& sent);
  class LookPlan;
  QueueLook PauseDrain(const util::SocketClient& socket, SentPacket& sent, LookPlan& plan);
  void LogDrained(int64_t start_us) const;
  Result DrainFromLoop(const util::SocketClient& socket, const SentPacket& sent);
  static void LogNoAck(MsgType awaited, int32_t timeout_sec);
  Result AwaitAck(AckQueue::Waiter& waiter, MsgType awaited, int message_id, AckEvent& event);
  MsgType AwaitedType(MsgType type, uint8_t qos) const;
  void DeliverAck(MsgType type, AckEvent& event, void* ack) const;

  // ---- connection.cpp
  struct StartPlan;
  void ResetSession();
  Result ChooseAddresses(const ConnectOption& option, StartPlan& plan) const;
  Result ChooseResolved(const ConnectOption& option, StartPlan& plan) const;
  static std::string PathTo(const std::string& address, int32_t port);
  void LogPath(const std::string& path, bool tls) const;
  Result PrepareTls(const ConnectOption& option, StartPlan& plan) const;
  std::shared_ptr<util::SocketClient> OpenSocket(const ConnectOption& option, const StartPlan& plan,
                                                 const std::string& path, int64_t limit_us) const;
  std::shared_ptr<util::SocketClient> ConnectToAny(const ConnectOption& option, const StartPlan& plan,
                                                   std::string& path);
  void ReplaceConnection(const std::shared_ptr<util::SocketClient>& socket,
                         const std::shared_ptr<util::SslWrapper>& ssl);
  Result OpenSession(const ConnectOption& option, const StartPlan& plan);
  Result Establish(ConnectOption& option, ConnectAck* ack);
  void TearDown();
  Result ExchangeConnect(ConnectOption& option, ConnectAck& ack);

  // ---- start_claim.cpp
  void EnterCall();
  void LeaveCall();
  bool BeginStart(const ConnectOption& option);
  bool ClaimStart(int64_t deadline_us);
  bool EnterExchange();
  void LeaveStart();
  void EndStart(bool claimed);
  bool StartAborted();
  bool AbortStartLocked();
  /// Takes back a start that has no receive thread yet, and waits for its end.
  void AbortStart();
  void WaitForStart();

  // ---- connect_exchange.cpp
  void AppendConnectProperties(PacketWriter& body, ConnectOption& option);
  void AppendWill(PacketWriter& body, MqttWrapper::LastWill& will, bool mqtt5);
  void AppendWillProperties(PacketWriter& body, MqttWrapper::WillProperties& properties);

  // ---- packet_decoder.cpp
  bool DecodeConnack(InboundPacket& packet, AckEvent& event) const;
  void DecodePublish(InboundPacket& packet);
  void AnswerPublish(const InboundPacket& packet, const PublishMessage& message);
  void DecodePubAck(InboundPacket& packet, AckEvent& event) const;
  bool DecodePubRel(InboundPacket& packet, AckEvent& event);
  bool DecodeSubAck(InboundPacket& packet, AckEvent& event) const;
  bool DecodePingResp(InboundPacket& packet);
  bool DecodeDisconnect(InboundPacket& packet);
  bool DecodeByType(InboundPacket& packet, AckEvent& event);
  void DeliverMessage(PublishMessage& message);

  // ---- receive_thread.cpp
  void RecvThread();
  bool SetUpRecvLoop(RecvLoop& loop);
  bool CreateTimer(RecvLoop& loop) const;
  bool CreateEpoll(RecvLoop& loop) const;
  void RunRecvLoop(RecvLoop& loop);
  bool PassRecvLoop(RecvLoop& loop);
  int WaitForEvents(RecvLoop& loop, struct epoll_event* events);
  void CheckOverdue(int64_t overdue_us) const;
  void DispatchEvents(RecvLoop& loop, const struct epoll_event* events, int n);
  bool HandleControl(const RecvLoop& loop);
  bool HandleTimer(const RecvLoop& loop);
  Result StartRecvThreadLocked();
  Result StopRecvThreadLocked();
  void PollPendingDrains(const util::SocketClient* socket);
  int WaitLimitMs(const RecvLoop& loop) const;
  void EndRecvThread(RecvLoop& loop);
  void AwaitThreadEnd();
  void EndSession(int32_t dis_reason);
  bool StopOnItsWay();
  bool OnReceiveThread() const;
  bool WriteControl(const char (&message)[9]) const;

  // ---- receive_stream.cpp
  void ReceiveAvailable(RecvLoop& loop);
  void SkipAvailable(RecvLoop& loop);
  void EndOfStream(ssize_t received);
  void SkipOversized(RecvLoop& loop, const uint8_t* data, int rs);
  void DecodeReceived(RecvLoop& loop, int rs);
  int DropRefused(const uint8_t* buf, int len) const;

  // ---- keep_alive.cpp
  uint64_t BeginPing(bool waited_for);
  void ResetStamps();
  bool RecordPing();
  bool LockPing();
  void RecordPong();
  Result JudgeAnswer();
  void RearmTimer(RecvLoop& loop, const struct epoll_event* events, int n);

  // ---- subscribe.cpp
  Result AppendSubscribeProperties(PacketWriter& body, MqttWrapper::SubscribeOption& option);
  Result AppendFilters(PacketWriter& body, MqttWrapper::SubscribeOption& option) const;

  // ---- disconnect.cpp
  void BuildDisconnect(PacketWriter& body, MqttWrapper::DisconnectOption& option);
  bool BeginStop();
  void EndStop();
  /// Waits until no stop is running, up to `timeout_us`, or without a limit when it is negative.
  bool WaitForStop(int64_t timeout_us);
  void DestroyConnection();

  const int32_t k_max_tx_buf_ = 131072;   // bytes: largest body the client can build
  const int32_t k_max_rx_buf_ = 131072;   // bytes: largest packet the client can take
  const int32_t max_publish_ = 100000;    // bytes: largest PUBLISH payload
  int32_t keep_alive_ = 0;                // seconds; set before the receive thread exists, then read by it
  int64_t keep_alive_us_ = 0;             // the same
  std::atomic<bool> keep_thread_{false};  // cleared by any thread, read by the receive thread
  util::Thread recv_thread_;              // handle_mutex_; joined by one thread under thread_mutex_
  util::Mutex thread_mutex_;              // start and stop of the receive thread, held across the join
  util::Mutex message_id_mutex_;          // message_id_
  util::Mutex ping_mutex_;                // one Ping at a time, held for the whole of it
  util::Mutex send_mutex_;                // disconnect_called_, connect_state_
  mutable util::Mutex socket_mutex_;      // socket_client_, ssl_wrapper_: the pointers, not the objects
  util::Mutex stop_mutex_;                // stop_calling_, starting_ and its companions
  std::shared_ptr<util::SocketClient> socket_client_;
  std::shared_ptr<util::SslWrapper> ssl_wrapper_;
  std::atomic<uint64_t> packets_written_{0};  // counted after each write
  uint64_t packets_drained_ = 0;         // socket_mutex_: so many were written when the send queue was empty
  AckQueue ack_event_q_;                 // has its own lock
  int32_t left_buf_size_ = 0;            // receive thread: bytes of an incomplete packet held
  int32_t extra_packet_size_ = 0;        // receive thread: bytes of an oversized packet beyond the buffer
  util::ZeroedPages tx_buf_;             // tx_mutex_
  std::atomic<bool> ping_wait_{false};   // written under ping_mutex_, read by the receive thread
  int64_t pong_recv_ = 0;                // stamp_mutex_: microseconds of CLOCK_BOOTTIME, 0 none
  int64_t ping_sent_ = 0;                // stamp_mutex_: the same
  std::atomic<int64_t> last_sent_{0};    // the same; written by any sender, read by the receive thread
  std::atomic<int32_t> timeout_sec_{0};  // seconds
  int64_t timeout_us_ = 0;               // set before the receive thread exists, then read by it
  std::atomic<int> event_fd_{-1};        // written under thread_mutex_; the number alone is read elsewhere
  int32_t message_id_ = 0;               // message_id_mutex_: the identifier handed out last
  bool stop_calling_ = false;            // stop_mutex_: a stop is running
  bool disconnect_called_ = false;       // send_mutex_: DISCONNECT went out
  enum class ConnectState { kUnsent, kWriting, kSent };
  ConnectState connect_state_ = ConnectState::kUnsent;  // send_mutex_: CONNECT on the current socket
  std::string wake_lock_name_;                          // set once
  std::string tag_;                                     // option_mutex_
  MqttWrapper* const wrapper_;
  std::shared_ptr<const ConnectOption> option_;  // option_mutex_: replaced whole, read as a snapshot
  std::atomic<int32_t> status_{kIdle};
  std::atomic<int32_t> dis_reason_{kNoReason};
  std::atomic<int32_t> broker_reason_code_{0};
  util::NetworkManager network_manager_;           // its callback: the receive thread
  std::list<PairedString> puback_user_property_;   // option_mutex_
  std::list<PairedString> pubrec_user_property_;   // option_mutex_
  std::list<PairedString> pubcomp_user_property_;  // option_mutex_
  InboundQos2 inbound_;                            // receive thread; survives a restart

  // What several requests and a stop from anywhere need beyond that.
  mutable util::Mutex option_mutex_;  // option_, tag_, the three lists
  util::Mutex tx_mutex_;              // tx_buf_, from building a body to SendAndWait's copy of it
  util::Mutex stamp_mutex_;           // ping_sent_, pong_recv_ and all to pong_was_late_, as one snapshot
  uint64_t stamp_session_ = 0;        // counts the starts: which session the stamps belong to
  uint64_t ping_session_ = 0;         // the session that the running Ping began in
  int32_t pings_unanswered_ = 0;      // PINGREQs whose PINGRESP the broker still owes
  bool ping_waited_for_ = false;      // a Ping waits for the last PINGREQ's answer and reports it missing
  bool ping_gave_up_ = false;         // the last PINGREQ's waiter left before its answer
  bool pong_was_late_ = false;        // an answer judged out of turn came after the limit
  util::Condition stop_cond_;         // stop_mutex_: a stop or a start has ended
  // Claimed: waits for an earlier stop. Connecting: up to the receive thread. Exchanging: until CONNACK.
  // Leaving: its outcome is decided.
  enum class StartState { kNone, kClaimed, kConnecting, kExchanging, kLeaving };
  StartState starting_ = StartState::kNone;  // stop_mutex_
  bool start_aborted_ = false;               // stop_mutex_: a stop has taken back the start that connects
  util::ScopedFd abort_fd_;                  // stop_mutex_, the number alone by the start: readable then
  std::thread::id starter_;                  // stop_mutex_: who connects
  int calls_inside_ = 0;                     // stop_mutex_: StartClient and StopClient that have not returned
  bool closing_ = false;                     // stop_mutex_: the destructor has begun
  util::Mutex handle_mutex_;     // thread_state_, and recv_thread_ against the thread's own Detach
  util::Condition handle_cond_;  // handle_mutex_: thread_state_ changed
  enum class ThreadState { kNone, kRunning, kJoinable, kDetached };
  ThreadState thread_state_ = ThreadState::kNone;
  std::atomic<bool> stop_requested_{false};  // "evt_exit" was written, whatever the descriptor tells
  std::atomic<bool> network_lost_{false};    // "evt_disc" was written, whatever the descriptor tells
  std::atomic<bool> recv_ended_{false};      // the receive thread has left its loop
  std::atomic<bool> self_stopped_{false};    // stopped from inside message_cb: the thread finishes the stop
  bool recv_send_stalled_ = false;           // receive thread: its last send ran into the time-out
  std::deque<int64_t> pending_drains_;       // receive thread: start times of packets not yet seen to leave
};

}  // namespace zeb::mqtt
