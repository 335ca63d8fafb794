// What lives exactly as long as one receive thread. For receive_thread.cpp and receive_stream.cpp.
#pragma once

#include <cstdint>
#include <memory>

#include "mqtt/self_mqtt_impl.h"
#include "util/scoped_fd.h"
#include "util/socket.h"

namespace zeb::mqtt {

/// On the receive thread's stack; no other thread sees it.
struct SelfMqttImpl::RecvLoop {
  std::shared_ptr<util::SocketClient> socket;
  util::ZeroedPages rx_buf;  // k_max_rx_buf_ bytes
  util::ScopedFd timer;
  util::ScopedFd epoll;
  int event_fd = -1;           // event_fd_, which outlives the thread
  int wait_limit_ms = 0;       // of epoll_wait
  int64_t overdue_us = 0;      // age at which a missing PUBREL is reported
  int64_t rearmed_for_us = 0;  // last_sent_ that the timer was last set for
  int64_t rearmed_at_us = 0;   // when it was last set
  bool rearm_owed = false;     // a re-arm was put off since
  bool wake_lock_held = false;
};

}  // namespace zeb::mqtt
