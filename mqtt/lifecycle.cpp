#include "mqtt/lifecycle.h"

#include <sys/eventfd.h>

#include <utility>

#include "util/boot_clock.h"

namespace zeb::mqtt {
namespace {

// The Lifecycle whose receive thread this thread is.
thread_local const Lifecycle* receiving_for = nullptr;

}  // namespace

std::shared_ptr<Session> Lifecycle::Current() const {
  const util::MutexLock lock(stop_mutex_);
  return session_;
}

bool Lifecycle::OnReceiveThread() const { return receiving_for == this; }

Lifecycle::Call::Call(Lifecycle& lifecycle) : lifecycle_(lifecycle) {
  const util::MutexLock lock(lifecycle_.stop_mutex_);
  ++lifecycle_.calls_;
}

Lifecycle::Call::~Call() {
  const util::MutexLock lock(lifecycle_.stop_mutex_);
  --lifecycle_.calls_;
  lifecycle_.changed_.Broadcast();
}

// With stop_mutex_ held. False: the deadline has passed.
bool Lifecycle::AwaitChange(int64_t deadline_us) {
  const int64_t left_us = deadline_us - util::MonotonicUs();
  if (left_us <= 0) return false;
  (void)changed_.WaitUntil(stop_mutex_, left_us);  // the caller looks again either way
  return true;
}

bool Lifecycle::BeginStart(int64_t patience_us) {
  if (OnReceiveThread()) return false;
  const std::thread::id self = std::this_thread::get_id();
  const int64_t deadline_us = util::MonotonicUs() + patience_us;
  util::MutexLock lock(stop_mutex_);
  // A callable that a start destroys may come here on that start's own thread, which must not wait for
  // itself.
  const auto soon_idle = [&] {
    return state_ == State::kStopping ||
           (state_ == State::kExchanging && !thread_running_ && starter_ != self);
  };
  while (!closing_ && soon_idle() && AwaitChange(deadline_us)) continue;
  if (closing_ || state_ != State::kIdle) return false;
  state_ = State::kConnecting;
  starter_ = self;
  aborted_ = false;
  abort_fd_ = util::ScopedFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  util::Thread stopped_inside = std::move(recv_thread_);
  lock.Unlock();
  if (stopped_inside.Joinable()) stopped_inside.Join();
  return true;
}

bool Lifecycle::StartAborted() const {
  const util::MutexLock lock(stop_mutex_);
  return aborted_;
}

std::shared_ptr<Session> Lifecycle::Install(std::shared_ptr<Session> session) {
  const util::MutexLock lock(stop_mutex_);
  return std::exchange(session_, std::move(session));
}

Result Lifecycle::LaunchThread(std::function<void()> body) {
  const util::MutexLock lock(stop_mutex_);
  if (aborted_) return kNotStarted;
  const auto run = [this, body = std::move(body)] {
    receiving_for = this;
    body();
  };
  if (recv_thread_.Start(run) != kSuccess) return kFailure;
  thread_running_ = true;
  state_ = State::kExchanging;
  abort_fd_.Reset();
  return kSuccess;
}

void Lifecycle::EndStart() {
  const util::MutexLock lock(stop_mutex_);
  state_ = State::kIdle;
  abort_fd_.Reset();
  changed_.Broadcast();
}

bool Lifecycle::Confirm(const Session& own, std::atomic<int32_t>* status) {
  const util::MutexLock lock(stop_mutex_);
  int32_t connected = 1;
  if (session_.get() != &own || state_ != State::kExchanging) return false;
  if (!status->compare_exchange_strong(connected, 2)) return false;
  state_ = thread_running_ ? State::kUp : State::kEnded;
  changed_.Broadcast();
  return true;
}

// With stop_mutex_ held. Whether a start of another thread is connecting, which gives up now.
bool Lifecycle::AbortStart() {
  if (state_ != State::kConnecting) return false;
  aborted_ = true;
  if (abort_fd_.valid()) (void)::eventfd_write(abort_fd_.get(), 1);
  return starter_ != std::this_thread::get_id();
}

Lifecycle::Stop Lifecycle::BeginStop() {
  const util::MutexLock lock(stop_mutex_);
  if (AbortStart()) {
    while (state_ == State::kConnecting && aborted_) changed_.Wait(stop_mutex_);
    if (state_ != State::kIdle) return Stop::kNothing;  // others have come in since
  }
  if (state_ == State::kConnecting) return Stop::kMarked;
  return state_ == State::kStopping ? Stop::kIgnored : ClaimStop();
}

Lifecycle::Stop Lifecycle::BeginStopOf(const Session& own, int64_t patience_us) {
  const int64_t deadline_us = util::MonotonicUs() + patience_us;
  const util::MutexLock lock(stop_mutex_);
  if (session_.get() == &own && state_ == State::kStopping) {
    while (session_.get() == &own && state_ == State::kStopping && AwaitChange(deadline_us)) continue;
    return Stop::kIgnored;
  }
  const bool others = session_.get() != &own || state_ == State::kConnecting;
  return others ? Stop::kNothing : ClaimStop();
}

// With stop_mutex_ held. An idle client has something to stop only if a failed start has left a socket.
Lifecycle::Stop Lifecycle::ClaimStop() {
  if (state_ == State::kIdle && session_->Socket() == nullptr) return Stop::kNothing;
  state_ = State::kStopping;
  return Stop::kOwner;
}

void Lifecycle::AwaitThreadEnd() {
  util::MutexLock lock(stop_mutex_);
  while (thread_running_) changed_.Wait(stop_mutex_);
  util::Thread ended = std::move(recv_thread_);
  lock.Unlock();
  if (ended.Joinable()) ended.Join();
}

void Lifecycle::EndStop() {
  const util::MutexLock lock(stop_mutex_);
  state_ = State::kIdle;
  changed_.Broadcast();
}

void Lifecycle::Close() {
  const util::MutexLock lock(stop_mutex_);
  closing_ = true;
  (void)AbortStart();
  changed_.Broadcast();
  while (calls_ > 0 || state_ == State::kStopping) changed_.Wait(stop_mutex_);
  state_ = State::kStopping;
}

void Lifecycle::EndThread(bool detach, bool stopped) {
  receiving_for = nullptr;
  const util::MutexLock lock(stop_mutex_);
  if (detach) recv_thread_.Detach();
  thread_running_ = false;
  if (stopped) state_ = State::kIdle;
  if (state_ == State::kUp) state_ = State::kEnded;
  changed_.Broadcast();
}

}  // namespace zeb::mqtt
