// A byte buffer with value semantics. Part of the public interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zeb::util {

/// Bytes of any value, zeros included. Copies are deep. Not synchronised: one thread at a time.
class Buffer {
 public:
  Buffer() = default;
  /// Copies `length` bytes from `data`; `data` may be null when `length` is 0.
  Buffer(const void* data, size_t length) { Assign(data, length); }

  /// Replaces the content by a copy of `length` bytes at `data`.
  void Assign(const void* data, size_t length) {
    const auto* first = static_cast<const uint8_t*>(data);
    length == 0 ? bytes_.clear() : bytes_.assign(first, first + length);
  }

  /// First byte, or null when the buffer is empty.
  [[nodiscard]] const uint8_t* data() const { return bytes_.empty() ? nullptr : bytes_.data(); }
  /// Number of bytes held.
  [[nodiscard]] size_t length() const { return bytes_.size(); }

  /// Compares the bytes.
  friend bool operator==(const Buffer& a, const Buffer& b) { return a.bytes_ == b.bytes_; }
  /// Compares the bytes.
  friend bool operator!=(const Buffer& a, const Buffer& b) { return !(a == b); }

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace zeb::util
