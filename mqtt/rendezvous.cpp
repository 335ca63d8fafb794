// The one way out: a body gets its fixed header, is written whole, watched until the peer's TCP has taken it,
// and the caller waits for the acknowledgement. Any thread; on the receive thread nothing here ever sleeps,
// since it alone could deliver what is waited for.
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"

namespace zeb::mqtt {
namespace {

// Every line bears the entry operation's name, whichever helper writes it.
constexpr char kSendAndWait[] =
    "zeb::Result zeb::mqtt::SelfMqttImpl::SendAndWait(uint8_t*, uint8_t*, zeb::mqtt::MsgType, bool, uint8_t, "
    "bool, int, void*)";
constexpr int32_t kMaxRemainingLength = 16777215;
constexpr size_t kMaxFixedHeader = 5;         // bytes
constexpr int32_t kDrainPollsPerSecond = 50;  // of the send queue,
constexpr int64_t kDrainPollUs = 20'000;      // this far apart
constexpr int64_t kFirstDrainLookUs = 50;     // first look between two polls; then doubling
constexpr int64_t kAwaitingDrainLookUs =
    5'000;                                  // the same where an answer wakes the caller: each timer costs
constexpr size_t kMaxPendingDrains = 1024;  // packets that the receive thread still watches
constexpr int64_t kUsPerSecond = 1'000'000;

std::string NameOf(MsgType type) { return MqttWrapper::GetMsgTypeInStr(type); }

// How long the peer's TCP has taken of late to acknowledge; 0 when the descriptor cannot tell. Microseconds.
int64_t RoundTripUs(int fd) {
  tcp_info info{};
  socklen_t size = sizeof info;
  return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_rtt : 0;
}

}  // namespace

/// A packet on its way, as far as the drain needs it.
struct SelfMqttImpl::SentPacket {
  bool awaits = false;  // an acknowledgement
  size_t lane = AckQueue::k_news_lane;
  uint64_t news = 0;     // of the lane, when last looked at; first of all before the write
  int64_t start_us = 0;  // of the write
  uint64_t number = 0;   // by which looks at the send queue know it
};

/// When to look at the send queue between two polls: soon and at doubling intervals, since most peers are
/// near; and so again once a round trip has passed, since the acknowledgement is due then.
class SelfMqttImpl::LookPlan {
 public:
  LookPlan(bool awaits, int64_t round_trip_us)
      : round_trip_end_us_(awaits ? 0 : util::MonotonicUs() + round_trip_us),
        interval_us_(awaits ? kAwaitingDrainLookUs : kFirstDrainLookUs) {}

  /// How long to wait at `now_us`; the poll at `poll_us` is the latest look.
  int64_t NextWaitUs(int64_t now_us, int64_t poll_us) {
    int64_t wait_us = std::min(interval_us_, poll_us - now_us);
    interval_us_ = std::min(2 * interval_us_, kDrainPollUs);
    const int64_t due_us = round_trip_end_us_ - now_us;
    if (due_us > 0 && due_us <= wait_us) {
      wait_us = due_us;
      interval_us_ = kFirstDrainLookUs;
    }
    return wait_us;
  }

 private:
  const int64_t round_trip_end_us_;  // on the monotonic clock; past: there is none to wait for
  int64_t interval_us_;
};

Result SelfMqttImpl::SendAndWait(const uint8_t* end, const uint8_t* begin, MsgType type, bool retain,
                                 uint8_t qos, bool dup, int message_id, void* ack, util::MutexLock* body_lock,
                                 uint64_t session) {
  const std::shared_ptr<util::SocketClient> socket = SharedSocket();
  if (const Result refused = CheckSendable(socket.get(), type); refused != kSuccess) return refused;
  if (session != 0 && session != ack_event_q_.Session()) return kFailure;

  const auto remaining_length = end - begin;
  if (remaining_length > kMaxRemainingLength) {
    CLIENT_LOG_AS(kSendAndWait, LOG_DEBUG, "remain_len must be equal or less than [%d]", kMaxRemainingLength);
    return kInvalidArgument;
  }
  const auto body_size = static_cast<size_t>(remaining_length);
  uint8_t header[kMaxFixedHeader];
  const auto header_size = static_cast<size_t>(
      EncodeFixedHeader(header, static_cast<unsigned int>(remaining_length), type, retain, qos, dup));
  const std::unique_ptr<uint8_t[]> packet(new (std::nothrow) uint8_t[header_size + body_size]);
  if (packet == nullptr) {
    CLIENT_LOG_AS(kSendAndWait, LOG_ERR, "Cannot alloc packet of [%zu] bytes", header_size + body_size);
    return kFailure;
  }
  std::memcpy(packet.get(), header, header_size);
  if (body_size != 0) std::memcpy(packet.get() + header_size, begin, body_size);
  if (body_lock != nullptr) body_lock->Unlock();

  const MsgType awaited = AwaitedType(type, qos);
  const bool awaits = awaited != MsgType::RESERVED;
  std::optional<AckQueue::Waiter> waiter;
  if (awaits) waiter.emplace(ack_event_q_, awaited, message_id);
  SentPacket sent;
  sent.awaits = awaits;
  if (awaits) sent.lane = waiter->lane();
  sent.news = ack_event_q_.News(sent.lane);
  const int packet_size = static_cast<int>(header_size + body_size);
  Result result = WritePacket(*socket, packet.get(), packet_size, static_cast<int>(body_size), type, &sent);
  if (result != kSuccess) return result;
  result = OnReceiveThread() ? DrainFromLoop(*socket, sent) : DrainSendQueue(*socket, sent);
  if (result != kSuccess || !awaits) return result;

  AckEvent event;
  result = AwaitAck(*waiter, awaited, message_id, event);
  if (result == kSuccess) DeliverAck(type, event, ack);
  return result;
}

Result SelfMqttImpl::CheckSendable(const util::SocketClient* socket, MsgType type) {
  if (socket == nullptr) return kNotConnected;
  if (status_ == kDisconnected) return kFailure;
  const util::MutexLock lock(send_mutex_);
  if (disconnect_called_) {
    CLIENT_LOG_AS(kSendAndWait, LOG_ERR, "Disconnect already called");
    return kFailure;
  }
  // Other threads' requests may meet a start: nothing may go out before CONNECT (MQTT 5.0, 3.1). While its
  // write is still to return, what the receive thread answers proves that it has left.
  const bool connect_left = connect_state_ == ConnectState::kSent ||
                            (connect_state_ == ConnectState::kWriting && OnReceiveThread());
  if (!connect_left && type != MsgType::CONNECT) {
    CLIENT_LOG_AS(kSendAndWait, LOG_ERR, "CONNECT is not sent yet");
    return kFailure;
  }
  return kSuccess;
}

// What the request waits for; RESERVED: nothing.
MsgType SelfMqttImpl::AwaitedType(MsgType type, uint8_t qos) const {
  switch (type) {
    case MsgType::CONNECT:
      return MsgType::CONNACK;
    case MsgType::PUBLISH:
      return qos == 1 ? MsgType::PUBACK : qos == 2 ? MsgType::PUBREC : MsgType::RESERVED;
    case MsgType::PUBREL:
      return MsgType::PUBCOMP;
    case MsgType::SUBSCRIBE:
      return MsgType::SUBACK;
    case MsgType::UNSUBSCRIBE:
      return MsgType::UNSUBACK;
    case MsgType::PINGREQ:
      return ping_wait_ ? MsgType::PINGRESP : MsgType::RESERVED;
    default:
      return MsgType::RESERVED;
  }
}

Result SelfMqttImpl::WritePacket(util::SocketClient& socket, const uint8_t* packet, int size,
                                 int remaining_length, MsgType type, SentPacket* sent_packet) {
  // Both are on record before the write, even if that fails: an answer may come before the write returns.
  if (type == MsgType::PINGREQ && !RecordPing()) return kFailure;
  if (type == MsgType::DISCONNECT || type == MsgType::CONNECT) {
    const util::MutexLock lock(send_mutex_);
    if (type == MsgType::DISCONNECT) disconnect_called_ = true;
    if (type == MsgType::CONNECT) connect_state_ = ConnectState::kWriting;
  }
  sent_packet->start_us = util::BootTimeUs();
  CLIENT_LOG_AS(kSendAndWait, LOG_DEBUG, "Before send %s message size [%d] p_len [%d]", NameOf(type).c_str(),
                size, remaining_length);
  const ssize_t sent = SendPacket(socket, packet, static_cast<size_t>(size), type == MsgType::DISCONNECT);
  if (sent != size) {
    CLIENT_LOG_AS(kSendAndWait, LOG_ERR, "Cannot send data requested [%d] sent [%zd]", size, sent);
    return kSendFailed;
  }
  sent_packet->number = ++packets_written_;
  last_sent_ = util::BootTimeUs();
  if (type == MsgType::CONNECT) {
    const util::MutexLock lock(send_mutex_);
    connect_state_ = ConnectState::kSent;
  }
  return kSuccess;
}

// A broker that sends but does not read must not hold the receive thread for one time-out a packet: after the
// first one it sends only what the socket takes at once, until that works again.
ssize_t SelfMqttImpl::SendPacket(util::SocketClient& socket, const uint8_t* packet, size_t size, bool last) {
  if (!OnReceiveThread()) return socket.Send(packet, size, last);
  if (recv_send_stalled_) {
    pollfd writable{socket.GetFd(), POLLOUT, 0};
    if (::poll(&writable, 1, 0) <= 0) return -1;
  }
  const ssize_t sent = socket.Send(packet, size, last);
  recv_send_stalled_ = sent != static_cast<ssize_t>(size);
  return sent;
}

// Asks how much the peer's TCP has not yet taken of what went out on `socket`. Threads that publish without a
// pause hardly ever find nothing themselves: once one of them did, all that was written before has left.
SelfMqttImpl::QueueLook SelfMqttImpl::LookAtSendQueue(const util::SocketClient* socket, uint64_t number) {
  util::MutexLock lock(socket_mutex_);
  const int fd = socket_client_ != nullptr && socket_client_.get() == socket ? socket->GetFd() : -1;
  if (fd < 0) {
    ZEB_LOG_AS(kSendAndWait, LOG_ERR, "socket closed already");
    return QueueLook::kFailed;
  }
  if (number <= packets_drained_) return QueueLook::kEmpty;
  const uint64_t written = packets_written_;
  int unsent = 0;
  if (::ioctl(fd, SIOCOUTQ, &unsent) < 0) {
    const int error = errno;
    CLIENT_LOG_AS(kSendAndWait, LOG_ERR, "fd [%d] SIOCOUTQ failed errno [%d]", fd, error);
    return QueueLook::kFailed;
  }
  if (unsent != 0) return QueueLook::kUnsent;
  packets_drained_ = written;
  lock.Unlock();
  ack_event_q_.TellNews();  // to the threads that wait for the same
  return QueueLook::kEmpty;
}

void SelfMqttImpl::LogDrained(int64_t start_us) const {
  CLIENT_LOG_AS(kSendAndWait, LOG_DEBUG, "After Complete sending diff [%jd]",
                static_cast<intmax_t>(util::BootTimeUs() - start_us));
}

Result SelfMqttImpl::DrainSendQueue(const util::SocketClient& socket, SentPacket& sent) {
  const int32_t timeout_sec = timeout_sec_;
  const int32_t polls = timeout_sec * kDrainPollsPerSecond;
  QueueLook look = polls < 0 ? QueueLook::kEmpty : QueueLook::kUnsent;
  if (polls > 0) look = LookAtSendQueue(&socket, sent.number);
  LookPlan plan(sent.awaits, look == QueueLook::kUnsent && !sent.awaits ? RoundTripUs(socket.GetFd()) : 0);
  for (int32_t poll = 1; look == QueueLook::kUnsent && poll < polls; ++poll) {
    look = PauseDrain(socket, sent, plan);
    const bool ended = recv_ended_;  // asked first: who closes may have taken everything just before
    if (look == QueueLook::kUnsent) look = LookAtSendQueue(&socket, sent.number);
    if (look != QueueLook::kUnsent || !ended) continue;
    // Nothing will leave any more. A request that awaits an answer learns of the end from the queue.
    if (sent.awaits) return kSuccess;
    ZEB_LOG_AS(kSendAndWait, LOG_ERR, "socket closed already");
    return kFailure;
  }
  if (look == QueueLook::kFailed) return kFailure;
  if (look == QueueLook::kEmpty) {
    LogDrained(sent.start_us);
  } else {
    CLIENT_LOG_AS(kSendAndWait, LOG_ERR, "Cannot send data during [%d] secs", timeout_sec);
  }
  return kSuccess;
}

// The time between two polls. An acknowledgement that comes in mostly proves that the packet has left, so it
// ends the pause early; and a look in between pays. Returns the last look.
SelfMqttImpl::QueueLook SelfMqttImpl::PauseDrain(const util::SocketClient& socket, SentPacket& sent,
                                                 LookPlan& plan) {
  const int64_t until_us = util::MonotonicUs() + kDrainPollUs;
  for (int64_t now_us = until_us - kDrainPollUs; now_us < until_us; now_us = util::MonotonicUs()) {
    ack_event_q_.AwaitNews(sent.lane, &sent.news, plan.NextWaitUs(now_us, until_us));
    if (recv_ended_) break;
    const QueueLook look = LookAtSendQueue(&socket, sent.number);
    if (look != QueueLook::kUnsent) return look;
  }
  return QueueLook::kUnsent;
}

// On the receive thread: one look now, the remaining polls from the loop.
Result SelfMqttImpl::DrainFromLoop(const util::SocketClient& socket, const SentPacket& sent) {
  const int32_t timeout_sec = timeout_sec_;
  if (timeout_sec == 0) {
    CLIENT_LOG_AS(kSendAndWait, LOG_ERR, "Cannot send data during [%d] secs", timeout_sec);
    return kSuccess;
  }
  const QueueLook look = timeout_sec < 0 ? QueueLook::kEmpty : LookAtSendQueue(&socket, sent.number);
  if (look == QueueLook::kFailed) return kFailure;
  if (look == QueueLook::kEmpty) {
    LogDrained(sent.start_us);
  } else if (pending_drains_.size() < kMaxPendingDrains) {
    pending_drains_.push_back(sent.start_us);
  }
  return kSuccess;
}

// The loop's share of the drain, run on every pass: an empty queue completes every packet at once.
void SelfMqttImpl::PollPendingDrains(const util::SocketClient* socket) {
  if (pending_drains_.empty()) return;
  const QueueLook look = LookAtSendQueue(socket, packets_written_);
  if (look != QueueLook::kUnsent) {
    if (look == QueueLook::kEmpty) {
      for (const int64_t start_us : pending_drains_) LogDrained(start_us);
    }
    pending_drains_.clear();
    return;
  }
  const int32_t timeout_sec = timeout_sec_;
  const int64_t given_up_us = util::BootTimeUs() - timeout_sec * kUsPerSecond;
  while (!pending_drains_.empty() && pending_drains_.front() <= given_up_us) {
    CLIENT_LOG_AS(kSendAndWait, LOG_ERR, "Cannot send data during [%d] secs", timeout_sec);
    pending_drains_.pop_front();
  }
}

void SelfMqttImpl::LogNoAck(MsgType awaited, int32_t timeout_sec) {
  ZEB_LOG_AS(kSendAndWait, LOG_ERR, "Cannot get %s event for %d seconds", NameOf(awaited).c_str(),
             timeout_sec);
}

Result SelfMqttImpl::AwaitAck(AckQueue::Waiter& waiter, MsgType awaited, int message_id, AckEvent& event) {
  const int32_t timeout_sec = timeout_sec_;
  int64_t budget_us = timeout_sec * kUsPerSecond;
  if (budget_us <= 0) return kFailure;
  if (OnReceiveThread()) {
    LogNoAck(awaited, timeout_sec);
    return kFailure;
  }
  // The wait stands still while the device is suspended; what a foreign event is charged with goes on.
  util::Moment pass = util::Moment::Now();
  // An acknowledgement for another identifier leaves the budget alone, but a broker that sends nothing else
  // must not hold the caller for ever. What came in before the end counts, however late it is looked at.
  const int64_t hard_end_us = pass.monotonic_us + 2 * budget_us;
  const auto end_us = [&] { return std::min(pass.monotonic_us + budget_us, hard_end_us); };
  bool quiet = false;
  int64_t arrived_us = 0;
  do {
    if (!quiet) {
      CLIENT_LOG_AS(kSendAndWait, LOG_DEBUG, "Before dequeue during %jd usecs",
                    static_cast<intmax_t>(budget_us));
    }
    const int64_t left_us = end_us() - util::MonotonicUs();
    const AckQueue::Look look = ack_event_q_.Dequeue(waiter, event, std::max<int64_t>(left_us, 0));
    if (look.verdict == AckQueue::Verdict::kNothing) {
      if (look.queued == 0 || end_us() == hard_end_us) LogNoAck(awaited, timeout_sec);
      return kFailure;
    }
    if (!quiet) {
      CLIENT_LOG_AS(kSendAndWait, LOG_DEBUG, "Expected %s and %s comes in", NameOf(awaited).c_str(),
                    NameOf(look.type).c_str());
    }
    // An event may have lain unseen for a while: its arrival is what counts.
    const util::Moment next_pass = look.arrived.monotonic_us > pass.monotonic_us ? look.arrived : pass;
    arrived_us = look.arrived.monotonic_us;
    switch (look.verdict) {
      case AckQueue::Verdict::kMatch:
        return kSuccess;
      case AckQueue::Verdict::kEnd:
        CLIENT_LOG_AS(kSendAndWait, LOG_DEBUG, "RESERVED comes in break loop");
        return kFailure;
      case AckQueue::Verdict::kDropped:
        CLIENT_LOG_AS(kSendAndWait, LOG_DEBUG,
                      "Expected message_id [%u] but message_id [%d] comes in continue loop",
                      static_cast<unsigned int>(message_id), static_cast<int>(look.message_id));
        pass = next_pass;
        break;
      default:
        if (!quiet) CLIENT_LOG_AS(kSendAndWait, LOG_DEBUG, "Not proper event, requeue for future use");
        quiet = quiet || look.queued == 1;
        if (look.verdict == AckQueue::Verdict::kOthers) break;  // which wakes it in debug alone
        budget_us -= std::max<int64_t>(next_pass.boot_us - pass.boot_us, 0);
        pass = next_pass;
    }
  } while (budget_us > 0 && arrived_us < end_us());
  if (budget_us > 0) LogNoAck(awaited, timeout_sec);
  return kFailure;
}

// Every acknowledgement that is delivered to the caller has its records.
void SelfMqttImpl::DeliverAck(MsgType type, AckEvent& event, void* ack) const {
  AckRecords* const records = event.records.get();
  if (records == nullptr) return;
  if (type == MsgType::CONNECT) {
    CLIENT_LOG_AS(
        kSendAndWait, LOG_DEBUG, "CONNACK reason_code %s",
        MqttWrapper::GetConnectReasonCodeInStr(static_cast<int>(records->connect_ack.reason_code)).c_str());
  }
  if (ack == nullptr) return;
  switch (type) {
    case MsgType::CONNECT:
      *static_cast<ConnectAck*>(ack) = std::move(records->connect_ack);
      break;
    case MsgType::SUBSCRIBE:
      *static_cast<MqttWrapper::SubscriptionAck*>(ack) = std::move(records->subscription_ack);
      break;
    case MsgType::UNSUBSCRIBE:
      *static_cast<MqttWrapper::UnsubscriptionAck*>(ack) = std::move(records->unsubscription_ack);
      break;
    default:
      break;
  }
}

}  // namespace zeb::mqtt
