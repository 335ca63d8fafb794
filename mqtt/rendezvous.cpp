// The one way out: a body gets its fixed header, is written whole and watched until the peer's TCP has taken
// it, and the caller waits for the acknowledgement. Any thread. On the receive thread nothing here ever
// sleeps, since that thread alone could deliver what would be waited for.
#include <poll.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/request.h"
#include "util/boot_clock.h"

namespace zeb::mqtt {
namespace {

constexpr int32_t kMaxRemainingLength = 16777215;
constexpr size_t kMaxFixedHeader = 5;  // bytes

std::string NameOf(MsgType type) { return MqttWrapper::GetMsgTypeInStr(type); }

// What is left of a request's time-out. The wait stands still while the device is suspended, but the charge
// for an event of another type does not.
struct Budget {
  explicit Budget(int64_t us)
      : left_us(us), pass(util::Moment::Now()), hard_end_us(pass.monotonic_us + 2 * us) {}
  int64_t EndUs() const { return std::min(pass.monotonic_us + left_us, hard_end_us); }
  // An event may have lain unseen for a while, and its arrival is what counts.
  void NextPass(const util::Moment& arrived, bool charge) {
    if (arrived.monotonic_us <= pass.monotonic_us) return;
    if (charge) left_us -= std::max<int64_t>(arrived.boot_us - pass.boot_us, 0);
    pass = arrived;
  }

  int64_t left_us;
  util::Moment pass;  // when the pass began
  // An acknowledgement for another identifier leaves the budget alone. A broker that sends nothing else must
  // not hold the caller for ever. What came in before the end counts, however late it is looked at.
  const int64_t hard_end_us;
};

}  // namespace

Result SelfMqttImpl::SendAndWait(const uint8_t* end, const uint8_t* begin, MsgType type, bool retain,
                                 uint8_t qos, bool dup, int message_id, void* ack) {
  return Request{*this, *lifecycle_.Current(), type, message_id, ack, retain, qos, dup}.Send(begin, end);
}

Result SelfMqttImpl::Request::Send(const uint8_t* begin, const uint8_t* end, util::MutexLock* body_lock) {
  socket = session.Socket();
  if (socket == nullptr) return kNotConnected;
  if (client.status_ == k_disconnected) return kFailure;
  const auto remaining_length = end - begin;
  if (remaining_length > kMaxRemainingLength) {
    CLIENT_LOG_AS(k_send_and_wait, LOG_DEBUG, "remain_len must be equal or less than [%d]",
                  kMaxRemainingLength);
    return kInvalidArgument;
  }
  const auto body_size = static_cast<size_t>(remaining_length);
  uint8_t header[kMaxFixedHeader];
  const auto header_size = static_cast<size_t>(
      EncodeFixedHeader(header, static_cast<unsigned int>(remaining_length), type, retain, qos, dup));
  const size_t size = header_size + body_size;
  const std::unique_ptr<uint8_t[]> packet(new (std::nothrow) uint8_t[size]);
  if (packet == nullptr) {
    CLIENT_LOG_AS(k_send_and_wait, LOG_ERR, "Cannot alloc packet of [%zu] bytes", size);
    return kFailure;
  }
  std::memcpy(packet.get(), header, header_size);
  if (body_size != 0) std::memcpy(packet.get() + header_size, begin, body_size);
  if (body_lock != nullptr) body_lock->Unlock();

  if (!Admit()) return kFailure;
  if (awaited != MsgType::RESERVED) waiter.emplace(session.ack_event_q_, awaited, message_id);
  start_us = util::BootTimeUs();
  CLIENT_LOG_AS(k_send_and_wait, LOG_DEBUG, "Before send %s message size [%d] p_len [%d]",
                NameOf(type).c_str(), static_cast<int>(size), static_cast<int>(body_size));
  Result result = Write(packet.get(), size);
  if (result == kSuccess) result = Drain();
  return result == kSuccess && awaited != MsgType::RESERVED ? AwaitAnswer() : result;
}

// Nothing goes out before CONNECT (MQTT 5.0, 3.1) or after DISCONNECT (3.14.4). What these two and PINGREQ
// mean for the session is on record before the write, because the answer may come before the write returns.
bool SelfMqttImpl::Request::Admit() {
  PingWatch::Judgement earlier_ping;
  util::MutexLock lock(session.send_mutex_);
  const bool ended = session.disconnect_called_;
  // While CONNECT's write is still to return, CONNACK proves that it has left.
  const bool answered = receiving && session.connack_seen_ && session.connect_begun_;
  const bool begun = type == MsgType::CONNECT || session.connect_sent_ || answered;
  const bool admitted = begun && !ended;
  if (type != MsgType::PINGREQ || session.ping_.waits()) awaited = AckOf(type, qos);
  if (admitted && type == MsgType::CONNECT) session.connect_begun_ = true;
  if (admitted && type == MsgType::DISCONNECT) session.disconnect_called_ = true;
  if (admitted && type == MsgType::PINGREQ)
    earlier_ping = session.ping_.Sending(util::BootTimeUs(), session.timeout_us());
  lock.Unlock();
  (void)client.LogJudgement(earlier_ping, session);  // Pong ends the session for a late one
  if (ended) {
    CLIENT_LOG_AS(k_send_and_wait, LOG_ERR, "Disconnect already called");
  } else if (!begun) {
    CLIENT_LOG_AS(k_send_and_wait, LOG_ERR, "CONNECT is not sent yet");
  }
  return admitted;
}

Result SelfMqttImpl::Request::Write(const uint8_t* packet, size_t size) {
  const ssize_t sent = WriteToSocket(packet, size);
  if (sent != static_cast<ssize_t>(size)) {
    CLIENT_LOG_AS(k_send_and_wait, LOG_ERR, "Cannot send data requested [%d] sent [%zd]",
                  static_cast<int>(size), sent);
    return kSendFailed;
  }
  session.last_sent_ = util::BootTimeUs();
  if (type == MsgType::CONNECT) {
    const util::MutexLock lock(session.send_mutex_);
    session.connect_sent_ = true;
  }
  return kSuccess;
}

// A broker that sends but does not read must not hold the receive thread for one time-out a packet. After the
// first one the thread sends only what the socket takes at once, until a send succeeds again.
ssize_t SelfMqttImpl::Request::WriteToSocket(const uint8_t* packet, size_t size) {
  const bool last = type == MsgType::DISCONNECT;
  if (!receiving) return socket->Send(packet, size, last);
  if (session.send_stalled_) {
    pollfd writable{socket->GetFd(), POLLOUT, 0};
    if (::poll(&writable, 1, 0) <= 0) return -1;
  }
  const ssize_t sent = socket->Send(packet, size, last);
  session.send_stalled_ = sent != static_cast<ssize_t>(size);
  return sent;
}

void SelfMqttImpl::Request::LogNoAnswer() const {
  ZEB_LOG_AS(k_send_and_wait, LOG_ERR, "Cannot get %s event for %d seconds", NameOf(awaited).c_str(),
             session.timeout_sec_);
}

Result SelfMqttImpl::Request::AwaitAnswer() {
  if (session.timeout_us() <= 0) return kFailure;
  if (receiving) {
    LogNoAnswer();
    return kFailure;
  }
  Budget budget(session.timeout_us());
  bool quiet = false;
  AckQueue::Look look;
  do {
    if (!quiet) {
      CLIENT_LOG_AS(k_send_and_wait, LOG_DEBUG, "Before dequeue during %jd usecs",
                    static_cast<intmax_t>(budget.left_us));
    }
    AckEvent event;
    const int64_t wait_us = std::max<int64_t>(budget.EndUs() - util::MonotonicUs(), 0);
    look = session.ack_event_q_.Dequeue(*waiter, event, wait_us);
    if (look.verdict == AckQueue::Verdict::kNothing) {
      if (look.queued == 0 || budget.EndUs() == budget.hard_end_us) LogNoAnswer();
      return kFailure;
    }
    if (!quiet) {
      CLIENT_LOG_AS(k_send_and_wait, LOG_DEBUG, "Expected %s and %s comes in", NameOf(awaited).c_str(),
                    NameOf(event.type).c_str());
    }
    if (look.verdict == AckQueue::Verdict::kAnswer) {
      if (event.records != nullptr) Deliver(*event.records);
      return kSuccess;
    }
    if (look.verdict == AckQueue::Verdict::kEnd) {
      CLIENT_LOG_AS(k_send_and_wait, LOG_DEBUG, "RESERVED comes in break loop");
      return kFailure;
    }
    if (look.verdict == AckQueue::Verdict::kDropped) {
      CLIENT_LOG_AS(k_send_and_wait, LOG_DEBUG,
                    "Expected message_id [%u] but message_id [%d] comes in continue loop",
                    static_cast<unsigned int>(message_id), static_cast<int>(event.message_id));
    } else if (!quiet) {
      CLIENT_LOG_AS(k_send_and_wait, LOG_DEBUG, "Not proper event, requeue for future use");
      quiet = look.queued == 1;
    }
    budget.NextPass(look.arrived, look.verdict == AckQueue::Verdict::kForeign);
  } while (budget.left_us > 0 && look.arrived.monotonic_us < budget.EndUs());
  if (budget.left_us > 0) LogNoAnswer();
  return kFailure;
}

void SelfMqttImpl::Request::Deliver(AckRecords& records) const {
  if (type == MsgType::CONNECT) {
    CLIENT_LOG_AS(
        k_send_and_wait, LOG_DEBUG, "CONNACK reason_code %s",
        MqttWrapper::GetConnectReasonCodeInStr(static_cast<int>(records.connect_ack.reason_code)).c_str());
  }
  if (ack == nullptr) return;
  if (type == MsgType::CONNECT) *static_cast<ConnectAck*>(ack) = std::move(records.connect_ack);
  if (type == MsgType::SUBSCRIBE)
    *static_cast<MqttWrapper::SubscriptionAck*>(ack) = std::move(records.subscription_ack);
  if (type == MsgType::UNSUBSCRIBE)
    *static_cast<MqttWrapper::UnsubscriptionAck*>(ack) = std::move(records.unsubscription_ack);
}

}  // namespace zeb::mqtt
