// PINGREQ out, PINGRESP in, the judgement whether the answer came in time, and the timer of the next PINGREQ.
// Ping runs on any thread, Pong, RecordPong and RearmTimer on the receive thread.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/recv_loop.h"
#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"
#include "util/scope_exit.h"

namespace zeb::mqtt {
namespace {

constexpr int64_t kUsPerSecond = 1'000'000;
constexpr int64_t kRearmStepUs = 100'000;
constexpr char kRecvThread[] = "void zeb::mqtt::SelfMqttImpl::RecvThread()";
constexpr char kPong[] = "zeb::Result zeb::mqtt::SelfMqttImpl::Pong()";

}  // namespace

Result SelfMqttImpl::Ping(bool wait) {
  if (!LockPing()) return kTimeout;
  const util::ScopeExit unlock([this] { ping_mutex_.Unlock(); });
  const bool judged_here = wait && !OnReceiveThread();
  const uint64_t session = BeginPing(judged_here);
  ping_wait_ = wait;
  const Result result =
      SendAndWait(tx_buf_.get(), tx_buf_.get(), MsgType::PINGREQ, false, 0, false, -1, nullptr);
  if (judged_here) {
    CLIENT_LOG(LOG_DEBUG, "Clear ping pong time value");
    const util::MutexLock stamps(stamp_mutex_);
    ping_waited_for_ = false;
    if (session != stamp_session_) return result;  // they belong to a session that was started since
    ping_sent_ = 0;
    pong_recv_ = 0;
    ping_gave_up_ = result != kSuccess;
  } else if (wait) {
    ping_wait_ = false;  // nobody waits on this thread: Pong judges the answer
  }
  return result;
}

// Another thread's Ping that waits holds the receive thread up until it ends; only the end of the session
// gets in between. False: the session ends.
bool SelfMqttImpl::LockPing() {
  if (!OnReceiveThread()) {
    ping_mutex_.Lock();
    return true;
  }
  constexpr int k_look_ms = 100;
  while (!ping_mutex_.TryLock()) {
    pollfd control{event_fd_, POLLIN, 0};
    if (::poll(&control, 1, k_look_ms) > 0) return false;
  }
  return true;
}

Result SelfMqttImpl::Pong() {
  const util::MutexLock lock(stamp_mutex_);
  if (pong_was_late_) {
    pong_was_late_ = false;
    return kFailure;
  }
  if (ping_sent_ == 0) return kSuccess;
  if (ping_sent_ < pong_recv_) return JudgeAnswer();
  if (pong_recv_ < 1) {
    const int32_t timeout_sec = timeout_sec_;
    // A Ping that waits reports the missing answer itself, and does not end the session by that.
    if (ping_waited_for_ || util::BootTimeUs() - ping_sent_ <= timeout_sec * kUsPerSecond) return kSuccess;
    CLIENT_LOG(LOG_ERR, "Cannot get PONGRESP message for %d seconds", timeout_sec);
    return kFailure;
  }
  CLIENT_LOG(LOG_ERR, "This is logic error please fix this one");
  return kFailure;
}

// With stamp_mutex_ held and an answer on record: whether it came in time. Both stamps start afresh.
Result SelfMqttImpl::JudgeAnswer() {
  const int64_t diff_us = pong_recv_ - ping_sent_;
  const int64_t limit_us = timeout_sec_ * kUsPerSecond;
  CLIENT_LOG_AS(kPong, LOG_DEBUG, "Got PONG: ping_sent %jd pong_recv %jd diff %jd",
                static_cast<intmax_t>(ping_sent_), static_cast<intmax_t>(pong_recv_),
                static_cast<intmax_t>(diff_us));
  ping_sent_ = 0;
  pong_recv_ = 0;
  if (diff_us <= limit_us) return kSuccess;
  CLIENT_LOG_AS(kPong, LOG_DEBUG, "Pong response came after %jd usec, thils should be come under %jd usec",
                static_cast<intmax_t>(diff_us), static_cast<intmax_t>(limit_us));
  return kFailure;
}

// Tells which session the stamps belong to.
uint64_t SelfMqttImpl::BeginPing(bool waited_for) {
  const util::MutexLock lock(stamp_mutex_);
  ping_waited_for_ = waited_for;
  ping_session_ = stamp_session_;
  return stamp_session_;
}

void SelfMqttImpl::ResetStamps() {
  const util::MutexLock lock(stamp_mutex_);
  ++stamp_session_;
  ping_sent_ = 0;
  pong_recv_ = 0;
  pings_unanswered_ = 0;
  ping_gave_up_ = false;
  pong_was_late_ = false;
  last_sent_ = 0;
}

// A PINGREQ is about to be written. An answer to the one before that no Pong has judged yet is judged now:
// the new stamp would make it look older than its own ping. While an earlier ping is unanswered its stamp
// stays: with a keep-alive shorter than the time-out a dead broker would else never be late. False: the
// client was restarted since Ping began, and the PINGREQ must not go out in a session that does not know of
// it.
bool SelfMqttImpl::RecordPing() {
  const util::MutexLock lock(stamp_mutex_);
  if (ping_session_ != stamp_session_) return false;
  if (ping_sent_ != 0 && ping_sent_ < pong_recv_ && JudgeAnswer() != kSuccess) pong_was_late_ = true;
  if (ping_sent_ == 0) ping_sent_ = util::BootTimeUs();
  ping_gave_up_ = false;
  ++pings_unanswered_;
  return true;
}

// A PINGRESP came in. When two pings overlap, the first answer settles both; the second one, still owed by
// the broker, must not stay on record as an answer to a later ping. An answer that nobody asked for does
// stay, and so does the one that a waiting Ping gave up on.
void SelfMqttImpl::RecordPong() {
  const util::MutexLock lock(stamp_mutex_);
  const bool owed = pings_unanswered_ > 0;
  if (owed) --pings_unanswered_;
  const int64_t now_us = util::BootTimeUs();
  if (ping_sent_ != 0) {
    pong_recv_ = owed ? std::max(now_us, ping_sent_ + 1) : now_us;
  } else if (!owed || ping_gave_up_) {
    pong_recv_ = now_us;
  }
}

// After a write the next PINGREQ is due a whole keep-alive later. The timer is only ever postponed. Under
// traffic that takes two system calls a packet: while nobody reads the lines either, one re-arm in a while
// does, and one that was put off is made up for before the expiry counts.
void SelfMqttImpl::RearmTimer(RecvLoop& loop, const epoll_event* events, int n) {
  const int64_t last_sent_us = last_sent_;
  if (last_sent_us == loop.rearmed_for_us) return;
  const bool expired = std::any_of(events, events + std::max(n, 0), [&](const epoll_event& event) {
    return event.data.fd == loop.timer.get();
  });
  const int64_t now_us = util::BootTimeUs();
  if (!expired && !util::LogEnabled(LOG_DEBUG) && now_us - loop.rearmed_at_us < kRearmStepUs) {
    loop.rearm_owed = true;
    return;
  }
  itimerspec timer{};
  if (::timerfd_gettime(loop.timer.get(), &timer) != 0) {
    ZEB_LOG_AS(kRecvThread, LOG_WARNING, "n [%d] Cannot get current value of timer [%d]", n,
               loop.timer.get());
    return;
  }
  loop.rearmed_for_us = last_sent_us;
  const auto left_s = static_cast<long>(timer.it_value.tv_sec);
  const auto left_ns = static_cast<long>(timer.it_value.tv_nsec);
  int64_t remaining_us = static_cast<int64_t>(left_s) * kUsPerSecond + left_ns / 1000;
  if (std::exchange(loop.rearm_owed, false) && expired) remaining_us = 0;  // it tells of the next interval
  const int64_t diff_us = keep_alive_us_ + (last_sent_us - now_us);
  ZEB_LOG_AS(kRecvThread, LOG_DEBUG, "[%ld:%ld] diff [%jd] time [%jd]", left_s, left_ns,
             static_cast<intmax_t>(diff_us), static_cast<intmax_t>(remaining_us));
  if (remaining_us >= diff_us) return;
  loop.rearmed_at_us = now_us;
  timer.it_value.tv_sec = static_cast<time_t>(diff_us / kUsPerSecond);
  timer.it_value.tv_nsec = static_cast<long>(diff_us % kUsPerSecond * 1000);
  timer.it_interval = timer.it_value;
  ZEB_LOG_AS(kRecvThread, LOG_DEBUG, "[%ld:%ld] diff [%jd] time [%jd] reset new [%jd:%jd]", left_s, left_ns,
             static_cast<intmax_t>(diff_us), static_cast<intmax_t>(remaining_us),
             static_cast<intmax_t>(timer.it_value.tv_sec), static_cast<intmax_t>(timer.it_value.tv_nsec));
  if (::timerfd_settime(loop.timer.get(), 0, &timer, nullptr) != 0) {
    ZEB_LOG_AS(kRecvThread, LOG_WARNING, "Cannot reset timerfd [%d]", loop.timer.get());
  }
}

}  // namespace zeb::mqtt
