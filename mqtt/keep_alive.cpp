// PINGREQ out, the judgement whether its PINGRESP came in time, and the timer of the next PINGREQ. Ping runs
// on any thread, Pong and RearmTimer on the receive thread.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/recv_loop.h"
#include "mqtt/request.h"
#include "util/boot_clock.h"
#include "util/scope_exit.h"

namespace zeb::mqtt {
namespace {

using Verdict = PingWatch::Verdict;

constexpr int64_t kUsPerSecond = 1'000'000;
constexpr int64_t kRearmStepUs = 100'000;
constexpr char kRecvThread[] = "void zeb::mqtt::SelfMqttImpl::RecvThread()";
constexpr char kPing[] = "zeb::Result zeb::mqtt::SelfMqttImpl::Ping(bool)";
constexpr char kPong[] = "zeb::Result zeb::mqtt::SelfMqttImpl::Pong()";

// One Ping at a time. On the receive thread another thread's Ping holds everything up, and only the end of
// the session gets in between. False: the session ends.
bool LockPing(Session& session, bool receiving) {
  if (!receiving) {
    session.ping_mutex_.Lock();
    return true;
  }
  constexpr int k_look_ms = 100;
  while (!session.ping_mutex_.TryLock()) {
    pollfd control{session.EventFd(), POLLIN, 0};
    if (::poll(&control, 1, k_look_ms) > 0) return false;
  }
  return true;
}

}  // namespace

Result SelfMqttImpl::Ping(bool wait) { return Ping(*lifecycle_.Current(), wait); }

Result SelfMqttImpl::Ping(Session& session, bool wait) {
  const bool receiving = lifecycle_.OnReceiveThread();
  if (!LockPing(session, receiving)) return kTimeout;
  const bool reports = wait && !receiving;  // on the receive thread nobody waits: Pong judges the answer
  Result result = kFailure;
  const util::ScopeExit unlock([&] { session.ping_mutex_.Unlock(); });
  const util::ScopeExit end([&] {
    if (!wait) return;
    if (reports) CLIENT_LOG_AS(kPing, LOG_DEBUG, "Clear ping pong time value");
    const util::MutexLock lock(session.send_mutex_);
    reports ? session.ping_.EndReported(result == kSuccess) : session.ping_.StopWaiting();
  });
  {
    const util::MutexLock lock(session.send_mutex_);
    session.ping_.Begin(wait, reports);
  }
  result = Request{*this, session, MsgType::PINGREQ}.Send(nullptr, nullptr);
  return result;
}

Result SelfMqttImpl::Pong() { return Pong(*lifecycle_.Current()); }

Result SelfMqttImpl::Pong(Session& session) {
  PingWatch::Judgement judgement;
  {
    const util::MutexLock lock(session.send_mutex_);
    if (session.ping_.quiet()) return kSuccess;
    judgement = session.ping_.Judge(util::BootTimeUs(), session.timeout_us());
    const bool stopping = session.stop_asked() || (session.disconnect_called_ && session.connect_begun_);
    if (stopping && !judgement.healthy()) return kSuccess;  // no reason to report
  }
  return LogJudgement(judgement, session);
}

Result SelfMqttImpl::LogJudgement(const PingWatch::Judgement& judgement, const Session& session) const {
  const auto diff_us = static_cast<intmax_t>(judgement.pong_recv - judgement.ping_sent);
  if (judgement.verdict == Verdict::kInTime || judgement.verdict == Verdict::kLate) {
    CLIENT_LOG_AS(kPong, LOG_DEBUG, "Got PONG: ping_sent %jd pong_recv %jd diff %jd",
                  static_cast<intmax_t>(judgement.ping_sent), static_cast<intmax_t>(judgement.pong_recv),
                  diff_us);
  }
  if (judgement.verdict == Verdict::kLate) {
    CLIENT_LOG_AS(kPong, LOG_DEBUG, "Pong response came after %jd usec, thils should be come under %jd usec",
                  diff_us, static_cast<intmax_t>(session.timeout_us()));
  }
  if (judgement.verdict == Verdict::kMissing)
    CLIENT_LOG_AS(kPong, LOG_ERR, "Cannot get PONGRESP message for %d seconds", session.timeout_sec_);
  if (judgement.verdict == Verdict::kUnordered)
    CLIENT_LOG_AS(kPong, LOG_ERR, "This is logic error please fix this one");
  return judgement.healthy() ? kSuccess : kFailure;
}

// After a write the next PINGREQ is due a whole keep-alive later. The timer is only ever postponed. Under
// traffic that takes two system calls a packet. While nobody reads the lines either, one re-arm in a while
// will do, and one that was put off is made up for before the expiry counts.
void SelfMqttImpl::RecvLoop::RearmTimer(const epoll_event* events, int n) {
  const int64_t last_sent_us = session.last_sent_;
  if (last_sent_us == rearmed_for_us) return;
  const bool expired = std::any_of(events, events + std::max(n, 0),
                                   [&](const epoll_event& event) { return event.data.fd == timer.get(); });
  const int64_t now_us = util::BootTimeUs();
  if (!expired && !util::LogEnabled(LOG_DEBUG) && now_us - rearmed_at_us < kRearmStepUs) {
    rearm_owed = true;
    return;
  }
  itimerspec next{};
  if (::timerfd_gettime(timer.get(), &next) != 0) {
    ZEB_LOG_AS(kRecvThread, LOG_WARNING, "n [%d] Cannot get current value of timer [%d]", n, timer.get());
    return;
  }
  rearmed_for_us = last_sent_us;
  const auto left_s = static_cast<long>(next.it_value.tv_sec);
  const auto left_ns = static_cast<long>(next.it_value.tv_nsec);
  int64_t remaining_us = static_cast<int64_t>(left_s) * kUsPerSecond + left_ns / 1000;
  if (std::exchange(rearm_owed, false) && expired) remaining_us = 0;  // it tells of the next interval
  const int64_t diff_us = session.keep_alive_ * kUsPerSecond + (last_sent_us - now_us);
  ZEB_LOG_AS(kRecvThread, LOG_DEBUG, "[%ld:%ld] diff [%jd] time [%jd]", left_s, left_ns,
             static_cast<intmax_t>(diff_us), static_cast<intmax_t>(remaining_us));
  if (remaining_us >= diff_us) return;
  rearmed_at_us = now_us;
  next.it_value.tv_sec = static_cast<time_t>(diff_us / kUsPerSecond);
  next.it_value.tv_nsec = static_cast<long>(diff_us % kUsPerSecond * 1000);
  next.it_interval = next.it_value;
  ZEB_LOG_AS(kRecvThread, LOG_DEBUG, "[%ld:%ld] diff [%jd] time [%jd] reset new [%jd:%jd]", left_s, left_ns,
             static_cast<intmax_t>(diff_us), static_cast<intmax_t>(remaining_us),
             static_cast<intmax_t>(next.it_value.tv_sec), static_cast<intmax_t>(next.it_value.tv_nsec));
  if (::timerfd_settime(timer.get(), 0, &next, nullptr) != 0)
    ZEB_LOG_AS(kRecvThread, LOG_WARNING, "Cannot reset timerfd [%d]", timer.get());
}

}  // namespace zeb::mqtt
