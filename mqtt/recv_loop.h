// The work of one receive thread, on that thread's stack. No other thread sees it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "mqtt/self_mqtt_impl.h"
#include "mqtt/stream_assembler.h"
#include "util/scoped_fd.h"

struct epoll_event;

namespace zeb::mqtt {

struct SelfMqttImpl::RecvLoop {
  RecvLoop(SelfMqttImpl& of_client, Session& on_session)
      : client(of_client), session(on_session), socket(on_session.Socket()), event_fd(on_session.EventFd()) {}

  // ---- receive_thread.cpp
  /// False: the thread has nothing to run on.
  bool SetUp();
  void Run();
  /// What comes after the loop, up to the thread's last step.
  void CleanUp();

  // ---- receive_stream.cpp
  /// One read, and all that it completes.
  void ReceiveAvailable();

  SelfMqttImpl& client;
  Session& session;
  const std::shared_ptr<util::SocketClient> socket;
  const int event_fd;
  StreamAssembler stream{};
  util::ScopedFd timer{};
  util::ScopedFd epoll{};
  int64_t rearmed_for_us = 0;  // last_sent_ that the timer was last set for
  int64_t rearmed_at_us = 0;   // when it was last set
  bool rearm_owed = false;     // a re-arm was put off since
  bool wake_lock_held = false;

 private:
  std::string Tag() const { return client.Tag(); }

  // ---- receive_thread.cpp
  bool CreateTimer();
  bool CreateEpoll();
  bool Pass();
  int WaitForEvents(epoll_event* events);
  void CheckOverdue() const;
  void Dispatch(const epoll_event* events, int n);
  bool HandleControl();
  bool HandleTimer();

  // ---- drain.cpp
  void PollPendingDrains();

  // ---- keep_alive.cpp
  void RearmTimer(const epoll_event* events, int n);

  // ---- receive_stream.cpp
  void SkipAvailable();
  void EndOfStream(ssize_t received);
  void DecodeReceived(int rs);
};

}  // namespace zeb::mqtt
