// What the fuzzers share: their input's reader and the check that ends a run, over a connection in memory.
// One thread.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/peer.h"

namespace zeb::fuzz {

/// Ends the process, which the fuzzer and the replay report, unless `holds`.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "Not so: %s\n", what);
  std::abort();
}

/// Hands out bytes from the front; zeros once they are used up.
struct Input {
  Input(const uint8_t* data, size_t size) : bytes(data, data + size) {}
  uint8_t Byte() { return at < bytes.size() ? static_cast<uint8_t>(bytes[at++]) : uint8_t{0}; }
  bool Flag() { return (Byte() & 1) != 0; }
  int64_t Number(int size) { return size == 0 ? 0 : Number(size - 1) << 8 | Byte(); }  // big-endian
  std::string Bytes(size_t size) {
    const std::string taken = bytes.substr(at, size);
    at += taken.size();
    return taken;
  }
  const std::string bytes;
  size_t at = 0;
};

/// A variable byte integer at `at`: its value, its bytes (at most four), and whether it ends within them.
struct Length {
  Length(const std::string& bytes, size_t at) {
    for (; !ends && size < 4 && at + size < bytes.size(); ++size) {
      value |= static_cast<size_t>(bytes[at + size] & 0x7F) << 7 * size;
      ends = (bytes[at + size] & 0x80) == 0;
    }
  }
  size_t value = 0, size = 0;
  bool ends = false;
};

/// The newest connection, which is in memory.
inline struct Wire {
  std::vector<std::string> sent;                         // packets of the client
  bool keeps = true;                                     // what is sent
  std::function<void(std::string_view packet)> on_send;  // called within each send
  bool broken = false;                                   // sends fail
  std::string inbound;                                   // for the client
  size_t received = 0;                                   // of it
  std::deque<size_t> pieces;                             // sizes of the next reads; then all there is
  ssize_t end = util::SocketClient::k_nothing_now;       // what a read returns behind the last byte
} wire;

/// A client after its CONNACK, on a new wire.
std::unique_ptr<mqtt::SelfMqttImpl> NewClient(bool mqtt5,
                                              mqtt::SelfMqttImplPeer::MessageCallback callback = {});

struct ClientPacket {
  unsigned first_byte = 0, identifier = 0;
  std::vector<std::string> texts;  // in the packet's order; a payload comes last
};
/// Takes a packet that a client has sent apart, without a line of the library. A malformed one ends the
/// process. What only an application's wishes decide (a will of QoS 3, a topic without a byte) is let
/// through.
ClientPacket ParseClientPacket(const std::string& bytes, bool mqtt5);

}  // namespace zeb::fuzz
