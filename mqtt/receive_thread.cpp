// The receive thread: set-up, the loop over socket, control descriptor and keep-alive timer, and the end. The
// body runs on the thread itself; StartRecvThread and StopRecvThread on others.
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
#include <new>
#include <utility>

#include "mqtt/client_log.h"
#include "mqtt/recv_loop.h"
#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"
#include "util/kernel_log.h"
#include "util/psm_manager.h"

namespace zeb::mqtt {
namespace {

constexpr char kRecvThread[] = "void zeb::mqtt::SelfMqttImpl::RecvThread()";
constexpr char kStartRecvThread[] = "zeb::Result zeb::mqtt::SelfMqttImpl::StartRecvThread()";
constexpr char kStopRecvThread[] = "zeb::Result zeb::mqtt::SelfMqttImpl::StopRecvThread()";
constexpr int kMaxEvents = 3;  // socket, control descriptor, timer
constexpr int64_t kUsPerSecond = 1'000'000;
constexpr int kDrainPollMs = 20;
constexpr uint32_t kReadable = EPOLLIN | EPOLLWAKEUP;
constexpr uint32_t kBroken = EPOLLERR | EPOLLHUP;
constexpr char kExitMessage[9] = "evt_exit";
constexpr char kDisconnectMessage[9] = "evt_disc";

// The client whose receive thread this thread is.
thread_local const SelfMqttImpl* receiving_for = nullptr;

}  // namespace

bool SelfMqttImpl::OnReceiveThread() const { return receiving_for == this; }

bool SelfMqttImpl::WriteControl(const char (&message)[9]) const {
  constexpr size_t k_message_size = 8;
  return ::write(event_fd_, message, k_message_size) == static_cast<ssize_t>(k_message_size);
}

Result SelfMqttImpl::StartRecvThread() {
  const util::MutexLock lock(thread_mutex_);
  return StartRecvThreadLocked();
}

Result SelfMqttImpl::StopRecvThread() {
  const util::MutexLock lock(thread_mutex_);
  return StopRecvThreadLocked();
}

// With thread_mutex_ held, like the next.
Result SelfMqttImpl::StartRecvThreadLocked() {
  if (event_fd_ > 0) return kAlreadyStarted;
  util::ScopedFd event_fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!event_fd.valid()) {
    const int error = errno;
    CLIENT_LOG_AS(kStartRecvThread, LOG_ERR, "eventfd errno [%d]", error);
    return kFailure;
  }
  stop_requested_ = false;
  network_lost_ = false;
  recv_ended_ = false;
  self_stopped_ = false;
  keep_thread_ = false;
  event_fd_ = event_fd.get();
  // The thread may be at its end before its handle is stored: it needs this lock to give the handle up.
  const util::MutexLock handle_lock(handle_mutex_);
  thread_state_ = ThreadState::kRunning;
  if (recv_thread_.Start([this] { RecvThread(); }) != kSuccess) {
    CLIENT_LOG_AS(kStartRecvThread, LOG_ERR, "Cannot create receive thread");
    thread_state_ = ThreadState::kNone;
    event_fd_ = -1;
    return kFailure;
  }
  (void)event_fd.Release();  // owned by event_fd_ from here on
  return kSuccess;
}

Result SelfMqttImpl::StopRecvThreadLocked() {
  if (event_fd_ < 0) return kNotStarted;
  stop_requested_ = true;
  keep_thread_ = false;
  char unread[8];
  (void)!::read(event_fd_, unread, sizeof unread);  // mostly there is nothing to read
  WriteControl(kExitMessage);
  // The thread may be sending to a broker that does not read: that must not hold up the stop.
  if (const auto socket = SharedSocket()) socket->Shutdown();
  CLIENT_LOG_AS(kStopRecvThread, LOG_DEBUG, "Before join");
  AwaitThreadEnd();
  CLIENT_LOG_AS(kStopRecvThread, LOG_DEBUG, "After join");
  self_stopped_ = false;
  ::close(event_fd_.exchange(-1));
  CLIENT_LOG_AS(kStopRecvThread, LOG_DEBUG, "End of StopRecvThread");
  return kSuccess;
}

// A thread that goes on into disconnect_cb has detached itself and touches the client no more.
void SelfMqttImpl::AwaitThreadEnd() {
  util::MutexLock lock(handle_mutex_);
  while (thread_state_ == ThreadState::kRunning) handle_cond_.Wait(handle_mutex_);
  const bool joinable = thread_state_ == ThreadState::kJoinable;
  thread_state_ = ThreadState::kNone;
  lock.Unlock();
  if (joinable) recv_thread_.Join();
}

void SelfMqttImpl::RecvThread() {
  receiving_for = this;
  RecvLoop loop;
  try {
    if (SetUpRecvLoop(loop)) RunRecvLoop(loop);
  } catch (const std::exception& error) {  // no memory: the session ends, the process goes on
    CLIENT_LOG_AS(kRecvThread, LOG_ERR, "receive thread ends by [%s]", error.what());
    EndSession(kNetworkFailure);
  }
  EndRecvThread(loop);
}

bool SelfMqttImpl::SetUpRecvLoop(RecvLoop& loop) {
  constexpr int k_ms_per_second = 1000;
  loop.wait_limit_ms = timeout_sec_ * k_ms_per_second;
  loop.overdue_us = timeout_sec_ * kUsPerSecond;
  loop.socket = SharedSocket();
  loop.event_fd = event_fd_;
  const long tid = ::syscall(SYS_gettid);
  ZEB_LOG_AS(kRecvThread, LOG_DEBUG, "TID [%ld]", tid);
  ZEB_KERNEL_LOG_ECHO("echo \"%s %d: TID [%ld]\n\" > /dev/kmsg", kRecvThread, __LINE__, tid);
  network_manager_.SetEventCb([this](util::EventDic& event) { EventCb(event); },
                              loop.socket != nullptr ? loop.socket->GetFd() : -1);
  left_buf_size_ = 0;
  extra_packet_size_ = 0;
  loop.rx_buf = util::MapZeroedPages(static_cast<size_t>(k_max_rx_buf_));
  if (loop.rx_buf == nullptr) {
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "Cannot alloc receive buf");
    return false;
  }
  if (!CreateTimer(loop) || !CreateEpoll(loop)) return false;
  keep_thread_ = !stop_requested_;
  return true;
}

// The alarm clock wakes the device from suspend; where that right is missing the same clock without it
// serves.
bool SelfMqttImpl::CreateTimer(RecvLoop& loop) const {
  for (const int clock : {CLOCK_BOOTTIME_ALARM, CLOCK_BOOTTIME}) {
    loop.timer = util::ScopedFd(::timerfd_create(clock, TFD_NONBLOCK | TFD_CLOEXEC));
    if (loop.timer.valid()) break;
    const int error = errno;
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "timerfd_create errno [%d]", error);
  }
  if (!loop.timer.valid()) return false;
  itimerspec period{};
  period.it_value.tv_sec = keep_alive_;
  period.it_interval.tv_sec = keep_alive_;
  if (::timerfd_settime(loop.timer.get(), 0, &period, nullptr) == 0) return true;
  const int error = errno;
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "timerfd_settime errno [%d]", error);
  return false;
}

bool SelfMqttImpl::CreateEpoll(RecvLoop& loop) const {
  loop.epoll = util::ScopedFd(::epoll_create1(EPOLL_CLOEXEC));
  if (!loop.epoll.valid()) {
    const int error = errno;
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "epoll_create errno [%d]", error);
    return false;
  }
  const std::pair<int, uint32_t> watched[kMaxEvents] = {
      {loop.socket != nullptr ? loop.socket->GetFd() : -1, EPOLLIN},
      {loop.event_fd, EPOLLIN},
      {loop.timer.get(), kReadable},
  };
  for (const auto& [fd, events] : watched) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    if (::epoll_ctl(loop.epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0) continue;
    const int error = errno;
    CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "EPOLL_CTL_ADD fd [%d] errno [%d]", fd, error);
    return false;
  }
  return true;
}

// The session is over, for a reason other than a stop.
void SelfMqttImpl::EndSession(int32_t dis_reason) {
  keep_thread_ = false;
  dis_reason_ = dis_reason;
}

// Whether the application is ending the session: then nothing that goes wrong is a reason to report. Until
// CONNECT goes out, disconnect_called_ tells of the session before.
bool SelfMqttImpl::StopOnItsWay() {
  const util::MutexLock lock(send_mutex_);
  return stop_requested_ || (disconnect_called_ && connect_state_ != ConnectState::kUnsent);
}

void SelfMqttImpl::RunRecvLoop(RecvLoop& loop) {
  while (keep_thread_) {
    if (!PassRecvLoop(loop)) return;
  }
}

// One pass: wait, keep the watches, handle what came. False leaves the loop at once.
bool SelfMqttImpl::PassRecvLoop(RecvLoop& loop) {
  std::array<epoll_event, kMaxEvents> events{};
  const int n = WaitForEvents(loop, events.data());
  const int wait_error = errno;
  RearmTimer(loop, events.data(), n);
  if (n < 0) {
    CLIENT_LOG_AS(kRecvThread, LOG_ERR, "n [%d] select errno %d", n, wait_error);
    if (wait_error != EINTR) {
      EndSession(kNetworkFailure);
      return false;
    }
  }
  if (Pong() != kSuccess) {
    EndSession(kKeepAliveFailure);
    return false;
  }
  CheckOverdue(loop.overdue_us);
  if (n > 0) DispatchEvents(loop, events.data(), n);
  // Bytes that TLS has already decrypted do not wake epoll.
  while (keep_thread_ && loop.socket->HasPending()) ReceiveAvailable(loop);
  PollPendingDrains(loop.socket.get());
  return true;
}

// Leaves errno as epoll_wait set it.
int SelfMqttImpl::WaitForEvents(RecvLoop& loop, epoll_event* events) {
  if (loop.wake_lock_held && psm::PsmManager::WakeUnlock(wake_lock_name_)) loop.wake_lock_held = false;
  const int n = ::epoll_wait(loop.epoll.get(), events, kMaxEvents, WaitLimitMs(loop));
  const int error = errno;
  if (n > 0) loop.wake_lock_held = psm::PsmManager::WakeLock(wake_lock_name_);
  errno = error;
  return n;
}

int SelfMqttImpl::WaitLimitMs(const RecvLoop& loop) const {
  if (pending_drains_.empty()) return loop.wait_limit_ms;
  return loop.wait_limit_ms < 0 ? kDrainPollMs : std::min(loop.wait_limit_ms, kDrainPollMs);
}

void SelfMqttImpl::CheckOverdue(int64_t overdue_us) const {
  if (inbound_.empty()) return;
  for (int64_t left = inbound_.CountOverdue(util::BootTimeUs(), overdue_us); left > 0; --left) {
    CLIENT_LOG_AS(kRecvThread, LOG_ERR, "Cannot get PUBCOMP message during %jd useconds",
                  static_cast<intmax_t>(overdue_us));
  }
}

void SelfMqttImpl::DispatchEvents(RecvLoop& loop, const epoll_event* events, int n) {
  int unhandled = n;
  const int count = std::min(n, kMaxEvents);
  for (int i = 0; i < count && unhandled > 0; ++i) {
    const epoll_event& event = events[i];
    if ((event.events & (kReadable | kBroken)) == 0) continue;
    --unhandled;
    if (event.data.fd == loop.event_fd) {
      if (!HandleControl(loop)) break;
    } else if (event.data.fd == loop.socket->GetFd()) {
      ReceiveAvailable(loop);
    } else if (event.data.fd == loop.timer.get()) {
      if (!HandleTimer(loop)) break;
    }
  }
  if (unhandled != 0) {
    ZEB_LOG_AS(kRecvThread, LOG_WARNING, "n is [%d] not all event handled properly", unhandled);
  }
}

// Two messages written before one read add up to a third text: the flags tell what was meant.
bool SelfMqttImpl::HandleControl(const RecvLoop& loop) {
  char message[9] = {};
  if (::read(loop.event_fd, message, sizeof message - 1) < 0) {
    if (errno == EAGAIN) return true;  // a stop took the message back and is about to write its own
    EndSession(kNetworkFailure);
    return false;
  }
  if (std::strcmp(message, kExitMessage) == 0 || stop_requested_) keep_thread_ = false;
  if (std::strcmp(message, kDisconnectMessage) == 0 || network_lost_) EndSession(kNetworkFailure);
  return true;
}

bool SelfMqttImpl::HandleTimer(const RecvLoop& loop) {
  uint64_t expiries = 0;
  // A re-arm after the expiry was reported takes it back: something was sent, no ping is due.
  if (::read(loop.timer.get(), &expiries, sizeof expiries) < 0) return true;
  util::MutexLock lock(send_mutex_);
  if (connect_state_ != ConnectState::kSent) return true;  // a slow start: there is nothing to keep alive yet
  lock.Unlock();
  if (Ping(false) != kFailure || StopOnItsWay()) return true;
  CLIENT_LOG_AS(kRecvThread, LOG_ERR, "Cannot send PINGREQ");
  EndSession(kKeepAliveFailure);
  return false;
}

void SelfMqttImpl::EndRecvThread(RecvLoop& loop) {
  (void)psm::PsmManager::WakeUnlock(wake_lock_name_);  // whatever the lock's state
  loop.timer.Reset();
  loop.epoll.Reset();
  CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "keep_thread_ %d dis_reason_ [%d]", keep_thread_ ? 1 : 0,
                dis_reason_.load());
  network_manager_.UnsetEventCb();
  recv_ended_ = true;
  try {
    ack_event_q_.Enqueue(AckEvent());
  } catch (const std::bad_alloc&) {  // who waits learns of the end by its time-out
    CLIENT_LOG_AS(kRecvThread, LOG_ERR, "Cannot alloc end mark");
  }
  loop.rx_buf.reset();
  loop.socket.reset();
  pending_drains_.clear();
  recv_send_stalled_ = false;
  status_ = kDisconnected;

  LeaveStart();  // a start that waits for CONNACK has lost its thread
  // From here on the thread works on copies: once it has given its handle up, the client may be gone.
  receiving_for = nullptr;
  const std::shared_ptr<const ConnectOption> option = Options();
  MqttWrapper* const wrapper = wrapper_;
  const int reason = dis_reason_;
  const std::string tag = Tag();
  const bool self_stopped = self_stopped_;
  const bool report = !self_stopped && reason != kNoReason && option->disconnect_cb != nullptr;
  if (report) CLIENT_LOG_AS(kRecvThread, LOG_DEBUG, "Before call disconnect_cb ");
  if (self_stopped) {  // what StopClient left to this thread
    DestroyConnection();
    SetTag("");
    EndStop();
  }
  {
    const util::MutexLock lock(handle_mutex_);
    if (report) recv_thread_.Detach();
    thread_state_ = report ? ThreadState::kDetached : ThreadState::kJoinable;
    handle_cond_.Broadcast();
  }
  if (!report) return;
  try {
    option->disconnect_cb(wrapper, reason);
  } catch (const std::exception& error) {
    ZEB_LOG_AS(kRecvThread, LOG_ERR, "[%s] disconnect_cb threw [%s]", tag.c_str(), error.what());
  } catch (...) {
    ZEB_LOG_AS(kRecvThread, LOG_ERR, "[%s] disconnect_cb threw", tag.c_str());
  }
}

}  // namespace zeb::mqtt
