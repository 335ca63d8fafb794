// One start at a time: how a start claims the client, how a stop or the destructor takes it back, and who
// waits for whom. All of it under stop_mutex_, on the threads of starts, stops and the destructor.
#include <sys/eventfd.h>

#include <algorithm>

#include "mqtt/self_mqtt_impl.h"
#include "util/boot_clock.h"

namespace zeb::mqtt {

// Every StartClient and StopClient is counted from its first step to its last, because the destructor waits
// for them. A StopClient may itself be waiting for a start that it has aborted.
void SelfMqttImpl::EnterCall() {
  const util::MutexLock lock(stop_mutex_);
  ++calls_inside_;
}

void SelfMqttImpl::LeaveCall() {
  const util::MutexLock lock(stop_mutex_);
  --calls_inside_;
  stop_cond_.Broadcast();
}

void SelfMqttImpl::EndStart(bool claimed) {
  const util::MutexLock lock(stop_mutex_);
  if (claimed) {
    starting_ = StartState::kNone;
    abort_fd_.Reset();
  }
  --calls_inside_;
  stop_cond_.Broadcast();
}

// Claims the client. A stop that is still running is waited for, so that it cannot take the new session down,
// and so is a start whose outcome is decided; on the receive thread they could only be waited for in vain.
bool SelfMqttImpl::BeginStart(const ConnectOption& option) {
  constexpr int64_t k_us_per_second = 1'000'000;
  if (OnReceiveThread()) return false;
  const int64_t patience_us = std::clamp(option.timeout, 0, k_max_timeout) * k_us_per_second;
  if (!ClaimStart(util::MonotonicUs() + patience_us)) return false;
  const bool stopped = WaitForStop(patience_us);
  if (stopped && self_stopped_) (void)StopRecvThread();  // reaps the thread that message_cb stopped
  const util::MutexLock lock(stop_mutex_);
  if (stopped && event_fd_ <= 0 && !closing_) {
    starting_ = StartState::kConnecting;
    starter_ = std::this_thread::get_id();
    start_aborted_ = false;
    abort_fd_ = util::ScopedFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    return true;  // without the descriptor a stop waits until the connect is over
  }
  starting_ = StartState::kNone;
  stop_cond_.Broadcast();
  return false;
}

bool SelfMqttImpl::ClaimStart(int64_t deadline_us) {
  const util::MutexLock lock(stop_mutex_);
  int64_t left_us = deadline_us - util::MonotonicUs();
  while (starting_ == StartState::kLeaving && !closing_ && left_us > 0) {
    (void)stop_cond_.WaitUntil(stop_mutex_, left_us);  // the loop looks again either way
    left_us = deadline_us - util::MonotonicUs();
  }
  if (starting_ != StartState::kNone || closing_) return false;
  starting_ = StartState::kClaimed;
  return true;
}

// The start has its receive thread: from here on a stop ends it as it ends a session. False when a stop was
// earlier.
bool SelfMqttImpl::EnterExchange() {
  const util::MutexLock lock(stop_mutex_);
  if (start_aborted_) return false;
  starting_ = StartState::kExchanging;
  return true;
}

// The outcome of the start is decided; without one there is nothing to tell.
void SelfMqttImpl::LeaveStart() {
  const util::MutexLock lock(stop_mutex_);
  if (starting_ == StartState::kExchanging) starting_ = StartState::kLeaving;
}

bool SelfMqttImpl::StartAborted() {
  const util::MutexLock lock(stop_mutex_);
  return start_aborted_;
}

// With stop_mutex_ held: takes back a start that is still connecting; it gives up at once.
bool SelfMqttImpl::AbortStartLocked() {
  if (starting_ != StartState::kConnecting) return false;
  start_aborted_ = true;
  if (abort_fd_.valid()) ::eventfd_write(abort_fd_.get(), 1);
  return starter_ != std::this_thread::get_id();  // what the application's callables captured may call a stop
}

void SelfMqttImpl::AbortStart() {
  const util::MutexLock lock(stop_mutex_);
  const bool others = AbortStartLocked();
  while (others && start_aborted_ && starting_ == StartState::kConnecting) stop_cond_.Wait(stop_mutex_);
}

// For the destructor: no further start begins, and the calls under way have left.
void SelfMqttImpl::WaitForStart() {
  const util::MutexLock lock(stop_mutex_);
  closing_ = true;
  (void)AbortStartLocked();  // its end is waited for with the others'
  stop_cond_.Broadcast();
  while (calls_inside_ > 0) stop_cond_.Wait(stop_mutex_);
}

}  // namespace zeb::mqtt
