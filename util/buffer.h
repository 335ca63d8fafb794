// A byte buffer with value semantics. Part of the public interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zeb::util {

/// Holds arbitrary bytes, zeros included. A copy has its own bytes. Not thread-safe.
class Buffer {
 public:
  Buffer() = default;
  /// Copies `length` bytes from `data`, which may be null if `length` is 0.
  Buffer(const void* data, size_t length) { Assign(data, length); }

  /// Replaces the content with a copy of the `length` bytes at `data`.
  void Assign(const void* data, size_t length) {
    const auto* first = static_cast<const uint8_t*>(data);
    length == 0 ? bytes_.clear() : bytes_.assign(first, first + length);
  }

  /// The first byte, or null if the buffer is empty.
  [[nodiscard]] const uint8_t* data() const { return bytes_.empty() ? nullptr : bytes_.data(); }
  /// The number of bytes.
  [[nodiscard]] size_t length() const { return bytes_.size(); }

  /// Compares the bytes.
  friend bool operator==(const Buffer& a, const Buffer& b) { return a.bytes_ == b.bytes_; }
  /// Compares the bytes.
  friend bool operator!=(const Buffer& a, const Buffer& b) { return !(a == b); }

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace zeb::util
