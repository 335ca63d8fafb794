// A broker that does nothing but answer: one thread, MQTT 3.1.1, plain or over TLS. It counts what it was
// sent and floods whoever subscribes to FloodTopic().
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace zeb::bench {

/// In memory that broker and clients share.
struct Counts {
  std::atomic<long> connects{0}, disconnects{0};
  std::atomic<long> publishes[3]{};       // by QoS; one of QoS 2 counts when it is released
  std::atomic<long> payload_bytes{0};     // of all of them
  std::atomic<long> acknowledgements{0};  // PUBACKs
  std::atomic<int64_t> flood_start_ns{0}, last_acknowledgement_ns{0};
};

/// Who subscribes to it gets as many messages of this QoS and payload size, as fast as TCP takes them.
inline std::string FloodTopic(int qos, long messages, size_t size) {
  return "flood/" + std::to_string(qos) + "/" + std::to_string(messages) + "/" + std::to_string(size);
}

/// Packets PUBLISH, packet identifiers from 1 on.
std::string FloodPackets(const std::string& topic, int qos, long first, long count, size_t size);

/// Serves `listener` until the process ends; `tls` null: plain.
[[noreturn]] void RunBroker(int listener, SSL_CTX* tls, Counts& counts);

}  // namespace zeb::bench
