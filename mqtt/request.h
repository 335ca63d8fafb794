// One packet out and the wait for its answer, on one connection. Any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "mqtt/self_mqtt_impl.h"

namespace zeb::mqtt {

/// Lives on the stack of the call that sends. The caller holds a reference to the Session, so that every
/// packet of a handshake goes out on the same one.
struct SelfMqttImpl::Request {
  // Every line bears the entry operation's name, whichever helper writes it.
  static constexpr char k_send_and_wait[] =
      "zeb::Result zeb::mqtt::SelfMqttImpl::SendAndWait(uint8_t*, uint8_t*, zeb::mqtt::MsgType, bool, "
      "uint8_t, bool, int, void*)";

  /// Sends the body under a fixed header, watches it leave, waits for the acknowledgement that the type calls
  /// for, and fills `ack` from it. `body_lock`, when given, is the lock under which the body was built; it is
  /// released as soon as the body has been copied.
  Result Send(const uint8_t* begin, const uint8_t* end, util::MutexLock* body_lock = nullptr);

  SelfMqttImpl& client;
  Session& session;
  const MsgType type;
  int message_id = -1;        // of the acknowledgement; 0 or less: any
  void* const ack = nullptr;  // the record that the type fills, or null
  bool retain = false;
  uint8_t qos = 0;
  bool dup = false;

  // What the steps share.
  const bool receiving = client.lifecycle_.OnReceiveThread();
  std::shared_ptr<util::SocketClient> socket{};
  MsgType awaited = MsgType::RESERVED;       // RESERVED: nothing
  std::optional<AckQueue::Waiter> waiter{};  // while it waits for its answer or for news of the send queue
  int64_t start_us = 0;                      // of the write
  uint64_t number = 0;                       // by which the send-queue watch knows the packet; 0: not yet

 private:
  std::string Tag() const { return client.Tag(); }
  bool Admit();
  Result Write(const uint8_t* packet, size_t size);
  ssize_t WriteToSocket(const uint8_t* packet, size_t size);
  Result Drain();
  bool AwaitEmptyQueue(QueueLook& look);
  Result AwaitAnswer();
  void LogNoAnswer() const;
  void Deliver(AckRecords& records) const;
};

}  // namespace zeb::mqtt
