// What the fuzzers share: their input's reader, the check that ends a run, and the connection of the fake
// platform. One thread.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <string>
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

/// What the client will receive and what it has sent.
inline struct Wire {
  std::string inbound;
  size_t received = 0;        // of it
  std::deque<size_t> pieces;  // sizes of the next reads; then all there is
  ssize_t end = 0;            // what a read returns behind the last byte
  bool broken = false;        // sends fail
  bool keeps = true;          // what is sent
  std::vector<std::string> sent;
  std::function<void(uint8_t first_byte)> answer;  // called within each send
} wire;

/// A client after its CONNACK, on a new wire.
std::unique_ptr<mqtt::SelfMqttImpl> NewClient(bool mqtt5,
                                              mqtt::SelfMqttImplPeer::MessageCallback callback = {});

}  // namespace zeb::fuzz
