// Watching a packet leave: whether the peer's TCP has taken it, and for how long a request waits for that.
// Any thread; the receive thread looks once for each packet, and its loop does the rest.
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "mqtt/client_log.h"
#include "mqtt/recv_loop.h"
#include "mqtt/request.h"
#include "util/boot_clock.h"

namespace zeb::mqtt {
namespace {

constexpr size_t kMaxPendingDrains = 1024;  // packets that the receive thread still watches
constexpr int64_t kPollUs = 20'000;         // between two looks at most
constexpr int64_t kFirstLookUs = 50;
constexpr int64_t kFirstLookAwaitingUs = 5'000;

// How long the peer's TCP has taken of late to acknowledge, in microseconds; 0 when the system cannot tell.
int64_t RoundTripUs(int fd) {
  tcp_info info{};
  socklen_t size = sizeof info;
  return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_rtt : 0;
}

}  // namespace

// Asks whether the peer's TCP has taken the packet with this number, which is given out at the first look; a
// null one stands for all packets so far.
SelfMqttImpl::QueueLook SelfMqttImpl::LookAtSendQueue(Session& session, uint64_t* number) const {
  util::MutexLock lock(session.socket_mutex_);
  const int fd = session.socket_client_ != nullptr ? session.socket_client_->GetFd() : -1;
  if (number != nullptr && *number == 0) *number = session.send_queue_.Add();
  if (fd >= 0 && number != nullptr && session.send_queue_.HasLeft(*number)) return QueueLook::kEmpty;
  int unsent = 0;
  const int asked = fd >= 0 ? ::ioctl(fd, SIOCOUTQ, &unsent) : -1;
  const int error = errno;
  if (asked == 0 && unsent == 0) session.send_queue_.SeenEmpty();
  lock.Unlock();
  if (fd < 0) {
    ZEB_LOG_AS(Request::k_send_and_wait, LOG_ERR, "socket closed already");
  } else if (asked < 0) {
    CLIENT_LOG_AS(Request::k_send_and_wait, LOG_ERR, "fd [%d] SIOCOUTQ failed errno [%d]", fd, error);
  } else if (unsent == 0) {
    session.ack_event_q_.TellNews();  // other requests wait for the same
  }
  return asked < 0 ? QueueLook::kFailed : unsent == 0 ? QueueLook::kEmpty : QueueLook::kUnsent;
}

Result SelfMqttImpl::Request::Drain() {
  const int32_t timeout_sec = session.timeout_sec_;
  QueueLook look = timeout_sec < 0 ? QueueLook::kEmpty : QueueLook::kUnsent;
  if (timeout_sec > 0) look = client.LookAtSendQueue(session, &number);
  if (timeout_sec > 0 && look == QueueLook::kUnsent) {
    if (receiving) {  // its loop does the rest
      if (session.pending_drains_.size() < kMaxPendingDrains) session.pending_drains_.push_back(start_us);
      return kSuccess;
    }
    const bool awaits = waiter.has_value();
    if (!AwaitEmptyQueue(look) && look == QueueLook::kUnsent) {
      if (awaits) return kSuccess;  // the acknowledgement queue tells of the end
      ZEB_LOG_AS(k_send_and_wait, LOG_ERR, "socket closed already");
      return kFailure;
    }
  }
  if (look == QueueLook::kEmpty) client.LogDrained(start_us);
  if (look == QueueLook::kUnsent)
    CLIENT_LOG_AS(k_send_and_wait, LOG_ERR, "Cannot send data during [%d] secs", timeout_sec);
  return look == QueueLook::kFailed ? kFailure : kSuccess;
}

// Looks until the time-out: at first soon and at doubling intervals, since most peers are near, and so again
// once a round trip has passed, since the peer's acknowledgement is due then. Where an answer will wake the
// request, early looks hardly pay. False: the connection has ended, which the last look already knows.
bool SelfMqttImpl::Request::AwaitEmptyQueue(QueueLook& look) {
  const bool awaits = waiter.has_value();
  if (!awaits) waiter.emplace(session.ack_event_q_, MsgType::RESERVED, -1);
  int64_t now_us = util::MonotonicUs();
  const int64_t end_us = now_us + session.timeout_us() - kPollUs;  // the last poll is the end
  const int64_t round_trip_end_us = awaits ? 0 : now_us + RoundTripUs(socket->GetFd());
  int64_t interval_us = awaits ? kFirstLookAwaitingUs : kFirstLookUs;
  bool stands = true;
  for (; stands && look == QueueLook::kUnsent && now_us < end_us; now_us = util::MonotonicUs()) {
    int64_t wait_us = std::min(interval_us, end_us - now_us);
    interval_us = std::min(2 * interval_us, kPollUs);
    if (now_us < round_trip_end_us && round_trip_end_us <= now_us + wait_us) {
      wait_us = round_trip_end_us - now_us;
      interval_us = kFirstLookUs;
    }
    // Most acknowledgements prove that the packet has left, so news end the pause.
    stands = session.ack_event_q_.AwaitNews(*waiter, wait_us);
    look = client.LookAtSendQueue(session, &number);
  }
  return stands;
}

void SelfMqttImpl::LogDrained(int64_t start_us) const {
  CLIENT_LOG_AS(Request::k_send_and_wait, LOG_DEBUG, "After Complete sending diff [%jd]",
                static_cast<intmax_t>(util::BootTimeUs() - start_us));
}

// The loop's share of the drain, on every pass. An empty queue completes every packet at once.
void SelfMqttImpl::RecvLoop::PollPendingDrains() {
  auto& pending = session.pending_drains_;
  if (pending.empty()) return;
  const QueueLook look = client.LookAtSendQueue(session, nullptr);
  if (look == QueueLook::kEmpty)
    for (const int64_t start_us : pending) client.LogDrained(start_us);
  if (look != QueueLook::kUnsent) pending.clear();
  const int64_t given_up_us = util::BootTimeUs() - session.timeout_us();
  for (; !pending.empty() && pending.front() <= given_up_us; pending.pop_front())
    CLIENT_LOG_AS(Request::k_send_and_wait, LOG_ERR, "Cannot send data during [%d] secs",
                  session.timeout_sec_);
}

}  // namespace zeb::mqtt
