// A minimal broker for MQTT 3.1.1, plain or over TLS. It only answers, counts what it receives, and floods
// clients that subscribe to FloodTopic(). One thread.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace zeb::bench {

/// Lies in memory that the broker and the clients share.
struct Counts {
  std::atomic<long> connects{0}, disconnects{0};
  std::atomic<long> publishes[3]{};       // by QoS; a QoS 2 message counts at its PUBREL
  std::atomic<long> payload_bytes{0};     // of all PUBLISH packets
  std::atomic<long> acknowledgements{0};  // PUBACKs
  std::atomic<int64_t> flood_start_ns{0}, last_acknowledgement_ns{0};
};

/// A subscriber gets `messages` messages with this QoS and payload size, as fast as TCP accepts them.
inline std::string FloodTopic(int qos, long messages, size_t size) {
  return "flood/" + std::to_string(qos) + "/" + std::to_string(messages) + "/" + std::to_string(size);
}

/// Returns `count` PUBLISH packets, beginning with number `first`. Packet identifiers start at 1.
std::string FloodPackets(const std::string& topic, int qos, long first, long count, size_t size);

/// Serves `listener` until the process ends, over TLS unless `tls` is null.
[[noreturn]] void RunBroker(int listener, SSL_CTX* tls, Counts& counts);

}  // namespace zeb::bench
