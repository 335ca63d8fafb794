// What the tests may ask of the platform in external_platform.cpp, and have it do: one connection in memory,
// and the books of what was taken. Any thread.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "util/scoped_fd.h"
#include "util/socket.h"

namespace external {
/// The only host that can be connected to.
inline constexpr char k_name[] = "broker.test", k_address[] = "192.0.2.1", k_path[] = "192.0.2.1;1883";
inline constexpr int k_port = 1883;

/// The newest connection. Guarded by the mutex while a client has threads.
inline struct Wire {
  std::vector<std::string> sent;                         // packets of the client
  bool keeps = true;                                     // what is sent
  std::function<void(std::string_view packet)> on_send;  // called within each send, without the mutex
  std::string inbound;                                   // for the client
  size_t received = 0;                                   // of it
  std::deque<size_t> pieces;                             // sizes of the next reads; then all there is
  ssize_t end = zeb::util::SocketClient::k_nothing_now;  // what a read returns behind the last byte
  bool broken = false;                                   // sends fail
  zeb::util::ScopedFd far_end;                           // a byte in it wakes the client
} wire;
inline std::mutex mutex;
inline std::atomic<int> locks{0};  ///< wake locks taken so far

/// The broker sends, or closes.
void Deliver(const std::string& bytes, ssize_t end = zeb::util::SocketClient::k_nothing_now);
}  // namespace external
