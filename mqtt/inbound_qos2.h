// The inbound QoS 2 messages whose PUBREL is still due (MQTT 5.0, 4.3.3). The client owns the list, because
// an exchange that a lost connection cut short goes on in the next one. Its receive threads use it in turn,
// so it needs no lock.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>

namespace zeb::mqtt {

class InboundQos2 {
 public:
  /// A message that has been delivered and not yet released. The text is not kept: a broker that never sends
  /// PUBREL must not fill the memory.
  struct RecvPublishMsg {
    uint16_t message_id = 0;
    int64_t recv_time = 0;  // microseconds of CLOCK_BOOTTIME
  };

  /// Records a message that came in at `now_us`.
  void Add(uint16_t message_id, int64_t now_us) {
    recv_publish_msg_l.push_back({message_id, now_us});
    if (recv_publish_msg_l.size() > k_max_records) recv_publish_msg_l.pop_front();
  }

  /// Forgets the oldest message with the identifier. False when there is none.
  bool Release(uint16_t message_id) {
    const auto record =
        std::find_if(recv_publish_msg_l.begin(), recv_publish_msg_l.end(),
                     [&](const RecvPublishMsg& each) { return each.message_id == message_id; });
    if (record == recv_publish_msg_l.end()) return false;
    recv_publish_msg_l.erase(record);
    return true;
  }

  /// How many messages came in more than `limit_us` before `now_us`.
  [[nodiscard]] int64_t CountOverdue(int64_t now_us, int64_t limit_us) const {
    return std::count_if(recv_publish_msg_l.begin(), recv_publish_msg_l.end(),
                         [&](const RecvPublishMsg& each) { return now_us - each.recv_time > limit_us; });
  }

  [[nodiscard]] bool empty() const { return recv_publish_msg_l.empty(); }
  [[nodiscard]] const std::list<RecvPublishMsg>& records() const { return recv_publish_msg_l; }

 private:
  // MQTT has no more identifiers than this, so the oldest of more records is stale.
  static constexpr size_t k_max_records = 65535;

  std::list<RecvPublishMsg> recv_publish_msg_l;  // in order of arrival
};

}  // namespace zeb::mqtt
