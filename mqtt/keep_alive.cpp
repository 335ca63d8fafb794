// PINGREQ out, PINGRESP in, and the judgement whether the answer came in time. Ping runs on any thread, Pong
// and RecordPong on the receive thread.
#include <poll.h>

#include <algorithm>

#include "mqtt/client_log.h"
#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"
#include "util/scope_exit.h"

namespace zeb::mqtt {
namespace {

constexpr int64_t kUsPerSecond = 1'000'000;
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

}  // namespace zeb::mqtt
