#include "mqtt/session.h"

#include <unistd.h>

#include <utility>

namespace zeb::mqtt {
namespace {

constexpr size_t kMessageSize = 8;  // of a control message, in bytes

}  // namespace

Session::Session() : Session(std::make_shared<ConnectOption>(), 0, nullptr, nullptr) {}

Session::Session(std::shared_ptr<const ConnectOption> option, int32_t timeout_sec,
                 std::shared_ptr<util::SocketClient> socket, std::shared_ptr<util::SslWrapper> ssl)
    : option_(std::move(option)),
      timeout_sec_(timeout_sec),
      keep_alive_(option_->keep_alive),
      socket_client_(std::move(socket)),
      ssl_wrapper_(std::move(ssl)) {}

std::shared_ptr<util::SocketClient> Session::Socket() const {
  const util::MutexLock lock(socket_mutex_);
  return socket_client_;
}

int Session::EventFd() const {
  const util::MutexLock lock(socket_mutex_);
  return event_fd_.get();
}

bool Session::StopOnItsWay() const {
  if (stop_asked()) return true;
  const util::MutexLock lock(send_mutex_);
  return disconnect_called_ && connect_begun_;
}

void Session::Inherit(const Session& before) {
  const util::MutexLock lock(before.send_mutex_);
  disconnect_called_ = before.disconnect_called_;
  ping_.Begin(before.ping_.waits(), false);
}

void Session::SetEventFd(util::ScopedFd event_fd) {
  const util::MutexLock lock(socket_mutex_);
  event_fd_ = std::move(event_fd);
}

void Session::Ask(uint8_t bit) {
  asked_ |= bit;
  if (bit == k_stop) keep_thread_ = false;
  const util::MutexLock lock(socket_mutex_);
  if (bit == k_stop) {
    char unread[kMessageSize];
    (void)!::read(event_fd_.get(), unread, sizeof unread);  // mostly there is nothing to read
  }
  (void)!::write(event_fd_.get(), bit == k_stop ? "evt_exit" : "evt_disc", kMessageSize);
}

void Session::Close() {
  util::MutexLock lock(socket_mutex_);
  const std::shared_ptr<util::SslWrapper> ssl = std::move(ssl_wrapper_);
  const std::shared_ptr<util::SocketClient> socket = std::move(socket_client_);
  lock.Unlock();
  if (socket != nullptr) socket->Shutdown();
}

}  // namespace zeb::mqtt
