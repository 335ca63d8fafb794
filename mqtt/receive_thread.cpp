// The receive thread: its start and end on other threads, and its own set-up, loop and last step.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/recv_loop.h"
#include "util/boot_clock.h"
#include "util/kernel_log.h"
#include "util/psm_manager.h"
#include "util/scope_exit.h"

namespace zeb::mqtt {
namespace {

constexpr char kRecvThread[] = "void zeb::mqtt::SelfMqttImpl::RecvThread()";
constexpr char kStartRecvThread[] = "zeb::Result zeb::mqtt::SelfMqttImpl::StartRecvThread()";
constexpr char kStopRecvThread[] = "zeb::Result zeb::mqtt::SelfMqttImpl::StopRecvThread()";
constexpr int kMaxEvents = 3;  // socket, control descriptor, timer
constexpr int kMsPerSecond = 1000;
constexpr int kDrainPollMs = 20;
constexpr uint32_t kReadable = EPOLLIN | EPOLLWAKEUP;
constexpr uint32_t kBroken = EPOLLERR | EPOLLHUP;
constexpr char kExitMessage[9] = "evt_exit";
constexpr char kDisconnectMessage[9] = "evt_disc";

}  // namespace

Result SelfMqttImpl::StartRecvThread() { return StartRecvThread(lifecycle_.Current()); }

Result SelfMqttImpl::StopRecvThread() { return StopRecvThread(*lifecycle_.Current()); }

Result SelfMqttImpl::StartRecvThread(const std::shared_ptr<Session>& session) {
  if (session->EventFd() >= 0) return kAlreadyStarted;
  util::ScopedFd event_fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!event_fd.valid()) {
    const int error = errno;
    CLIENT_LOG_AS(kStartRecvThread, LOG_ERR, "eventfd errno [%d]", error);
    return kFailure;
  }
  session->SetEventFd(std::move(event_fd));
  util::ScopeExit undo([&] { session->CloseEventFd(); });
  const Result result = lifecycle_.LaunchThread([this, session] { RecvThread(session); });
  if (result == kSuccess) undo.Dismiss();
  if (result == kFailure) CLIENT_LOG_AS(kStartRecvThread, LOG_ERR, "Cannot create receive thread");
  return result;
}

Result SelfMqttImpl::StopRecvThread(Session& session) {
  if (session.EventFd() < 0) return kNotStarted;
  session.Ask(Session::k_stop);
  // The thread may be sending to a broker that does not read, which must not hold up the stop.
  if (const auto socket = session.Socket()) socket->Shutdown();
  CLIENT_LOG_AS(kStopRecvThread, LOG_DEBUG, "Before join");
  lifecycle_.AwaitThreadEnd();
  CLIENT_LOG_AS(kStopRecvThread, LOG_DEBUG, "After join");
  session.CloseEventFd();
  CLIENT_LOG_AS(kStopRecvThread, LOG_DEBUG, "End of StopRecvThread");
  return kSuccess;
}

void SelfMqttImpl::EndSession(Session& session, int32_t dis_reason) {
  session.keep_thread_ = false;
  dis_reason_ = dis_reason;
}

void SelfMqttImpl::RecvThread(const std::shared_ptr<Session>& session) {
  {
    RecvLoop loop(*this, *session);
    try {
      if (loop.SetUp()) loop.Run();
    } catch (const std::exception& error) {  // no memory: the session ends, the process goes on
      CLIENT_LOG_AS(kRecvThread, LOG_ERR, "receive thread ends by [%s]", error.what());
      EndSession(*session, k_network_failure);
    }
    loop.CleanUp();
  }
  status_ = k_disconnected;

  // From here on the thread works on copies: after its last step the client may be gone.
  MqttWrapper* const wrapper = wrapper_;
  const int reason = dis_reason_;
  const std::string tag = Tag();
  const auto& disconnect_cb = session->option_->disconnect_cb;
  const bool report = !session->stopped_inside_ && reason != k_no_reason && disconnect_cb != nullptr;
  if (report) CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "Before call disconnect_cb ");
  if (session->stopped_inside_) {  // what StopClient left to this thread
    session->Close();
    SetTag("");
  }
  lifecycle_.EndThread(report, session->stopped_inside_);
  if (!report) return;
  try {
    disconnect_cb(wrapper, reason);
  } catch (const std::exception& error) {
    ZEB_LOG_AS(kRecvThread, LOG_ERR, "[%s] disconnect_cb threw [%s]", tag.c_str(), error.what());
  } catch (...) {
    ZEB_LOG_AS(kRecvThread, LOG_ERR, "[%s] disconnect_cb threw", tag.c_str());
  }
}

bool SelfMqttImpl::RecvLoop::SetUp() {
  const long tid = ::syscall(SYS_gettid);
  ZEB_LOG_AS(kRecvThread, LOG_DEBUG, "TID [%ld]", tid);
  ZEB_KERNEL_LOG_ECHO("echo \"%s %d: TID [%ld]\n\" > /dev/kmsg", kRecvThread, __LINE__, tid);
  client.network_manager_.SetEventCb([&of = client](util::EventDic& event) { of.EventCb(event); },
                                     socket != nullptr ? socket->GetFd() : -1);
  if (!stream.Allocate(client.k_max_rx_buf_)) {
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "Cannot alloc receive buf");
    return false;
  }
  if (!CreateTimer() || !CreateEpoll()) return false;
  session.keep_thread_ = !session.stop_asked();
  return true;
}

// The alarm clock wakes the device from suspend. A process without that right uses the same clock without the
// alarm.
bool SelfMqttImpl::RecvLoop::CreateTimer() {
  for (const int clock : {CLOCK_BOOTTIME_ALARM, CLOCK_BOOTTIME}) {
    timer = util::ScopedFd(::timerfd_create(clock, TFD_NONBLOCK | TFD_CLOEXEC));
    if (timer.valid()) break;
    const int error = errno;
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "timerfd_create errno [%d]", error);
  }
  if (!timer.valid()) return false;
  itimerspec period{};
  period.it_value.tv_sec = session.keep_alive_;
  period.it_interval.tv_sec = session.keep_alive_;
  if (::timerfd_settime(timer.get(), 0, &period, nullptr) == 0) return true;
  const int error = errno;
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "timerfd_settime errno [%d]", error);
  return false;
}

bool SelfMqttImpl::RecvLoop::CreateEpoll() {
  epoll = util::ScopedFd(::epoll_create1(EPOLL_CLOEXEC));
  if (!epoll.valid()) {
    const int error = errno;
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "epoll_create errno [%d]", error);
    return false;
  }
  const std::pair<int, uint32_t> watched[kMaxEvents] = {
      {socket != nullptr ? socket->GetFd() : -1, EPOLLIN},
      {event_fd, EPOLLIN},
      {timer.get(), kReadable},
  };
  for (const auto& [fd, events] : watched) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0) continue;
    const int error = errno;
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "EPOLL_CTL_ADD fd [%d] errno [%d]", fd, error);
    return false;
  }
  return true;
}

void SelfMqttImpl::RecvLoop::Run() {
  while (session.keep_thread_ && Pass()) continue;
}

// Waits, keeps the watches and handles what came. False leaves the loop at once.
bool SelfMqttImpl::RecvLoop::Pass() {
  std::array<epoll_event, kMaxEvents> events{};
  const int n = WaitForEvents(events.data());
  const int wait_error = errno;
  RearmTimer(events.data(), n);
  if (n < 0) {
    CLIENT_LOG_AS(kRecvThread, LOG_ERR, "n [%d] select errno %d", n, wait_error);
    if (wait_error != EINTR) {
      client.EndSession(session, k_network_failure);
      return false;
    }
  }
  if (client.Pong(session) != kSuccess) {
    client.EndSession(session, k_ping_failure);
    return false;
  }
  CheckOverdue();
  if (n > 0) Dispatch(events.data(), n);
  // Bytes that TLS has already decrypted do not wake epoll.
  while (session.keep_thread_ && socket->HasPending()) ReceiveAvailable();
  PollPendingDrains();
  return true;
}

// Returns with errno as epoll_wait has set it.
int SelfMqttImpl::RecvLoop::WaitForEvents(epoll_event* events) {
  if (wake_lock_held && psm::PsmManager::WakeUnlock(client.wake_lock_name_)) wake_lock_held = false;
  int limit_ms = session.timeout_sec_ * kMsPerSecond;
  if (!session.pending_drains_.empty())
    limit_ms = limit_ms < 0 ? kDrainPollMs : std::min(limit_ms, kDrainPollMs);
  const int n = ::epoll_wait(epoll.get(), events, kMaxEvents, limit_ms);
  const int error = errno;
  if (n > 0) wake_lock_held = psm::PsmManager::WakeLock(client.wake_lock_name_);
  errno = error;
  return n;
}

void SelfMqttImpl::RecvLoop::CheckOverdue() const {
  if (client.inbound_.empty()) return;
  for (int64_t left = client.inbound_.CountOverdue(util::BootTimeUs(), session.timeout_us()); left > 0;
       --left) {
    CLIENT_LOG_AS(kRecvThread, LOG_ERR, "Cannot get PUBCOMP message during %jd useconds",
                  static_cast<intmax_t>(session.timeout_us()));
  }
}

void SelfMqttImpl::RecvLoop::Dispatch(const epoll_event* events, int n) {
  int unhandled = n;
  const int count = std::min(n, kMaxEvents);
  for (int i = 0; i < count && unhandled > 0; ++i) {
    const epoll_event& event = events[i];
    if ((event.events & (kReadable | kBroken)) == 0) continue;
    --unhandled;
    if (event.data.fd == event_fd) {
      if (!HandleControl()) break;
    } else if (event.data.fd == socket->GetFd()) {
      ReceiveAvailable();
    } else if (event.data.fd == timer.get()) {
      if (!HandleTimer()) break;
    }
  }
  if (unhandled != 0) {
    ZEB_LOG_AS(kRecvThread, LOG_WARNING, "n is [%d] not all event handled properly", unhandled);
  }
}

// Two messages written before one read add up to a third text. The session's bits tell what was meant.
bool SelfMqttImpl::RecvLoop::HandleControl() {
  char message[9] = {};
  if (::read(event_fd, message, sizeof message - 1) < 0) {
    if (errno == EAGAIN) return true;  // a stop took the message back and is about to write its own
    client.EndSession(session, k_network_failure);
    return false;
  }
  if (std::strcmp(message, kExitMessage) == 0 || session.stop_asked()) session.keep_thread_ = false;
  if (std::strcmp(message, kDisconnectMessage) == 0 || (session.asked_ & Session::k_network_lost) != 0)
    client.EndSession(session, k_network_failure);
  return true;
}

bool SelfMqttImpl::RecvLoop::HandleTimer() {
  uint64_t expiries = 0;
  // There is nothing to read if the timer was set again after its expiry: something was sent, and no ping is
  // due.
  if (::read(timer.get(), &expiries, sizeof expiries) < 0) return true;
  util::MutexLock lock(session.send_mutex_);
  if (!session.connect_sent_) return true;  // a slow start: there is nothing to keep alive yet
  lock.Unlock();
  if (client.Ping(session, false) != kFailure || session.StopOnItsWay()) return true;
  CLIENT_LOG_AS(kRecvThread, LOG_ERR, "Cannot send PINGREQ");
  client.EndSession(session, k_ping_failure);
  return false;
}

void SelfMqttImpl::RecvLoop::CleanUp() {
  (void)psm::PsmManager::WakeUnlock(client.wake_lock_name_);  // whatever the lock's state
  timer.Reset();
  epoll.Reset();
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "keep_thread_ %d dis_reason_ [%d]", session.keep_thread_ ? 1 : 0,
                client.dis_reason_.load());
  client.network_manager_.UnsetEventCb();
  session.ack_event_q_.Enqueue(AckEvent());
}

}  // namespace zeb::mqtt
